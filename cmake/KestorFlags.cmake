# One instruction set for everything: 256-bit vectors with fused multiply-add, no run-time choice.
# Floating-point expressions are evaluated as written: no silent fusing into multiply-add, so a
# scalar loop and its vector form give the same bits. Vector code asks for FMA where it wants it.
set(KESTOR_CXX_FLAGS -O2 -mavx2 -mfma -ffp-contract=off -Wall -Wextra)
set(KESTOR_LINK_FLAGS "")
if(KESTOR_SANITIZE AND KESTOR_TSAN)
  message(FATAL_ERROR "KESTOR_SANITIZE and KESTOR_TSAN cannot be combined")
endif()
if(KESTOR_FUZZ AND (KESTOR_SANITIZE OR KESTOR_TSAN))
  message(FATAL_ERROR "KESTOR_FUZZ brings its own sanitizers")
endif()
if(KESTOR_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KESTOR_FUZZ needs clang (libFuzzer): -DCMAKE_CXX_COMPILER=clang++-14")
  endif()
  # Coverage feedback for libFuzzer and both sanitizers on the library's own code; the
  # harnesses link the fuzzer's main (tests/fuzz).
  list(APPEND KESTOR_CXX_FLAGS -fsanitize=fuzzer-no-link,address,undefined -gline-tables-only
       -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  list(APPEND KESTOR_LINK_FLAGS -fsanitize=address,undefined)
endif()
if(KESTOR_SANITIZE)
  list(APPEND KESTOR_CXX_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer
       -fno-sanitize-recover=undefined)
  list(APPEND KESTOR_LINK_FLAGS -fsanitize=address,undefined)
endif()
if(KESTOR_TSAN)
  list(APPEND KESTOR_CXX_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
  list(APPEND KESTOR_LINK_FLAGS -fsanitize=thread)
endif()

function(kestor_set_flags target)
  target_compile_options(${target} PRIVATE ${KESTOR_CXX_FLAGS})
  target_link_options(${target} PRIVATE ${KESTOR_LINK_FLAGS})
endfunction()
