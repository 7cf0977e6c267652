#pragma once
// A fresh folder named after the running test and process, removed with everything in it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace kestor_test {

struct TempDir {
    std::filesystem::path path = std::filesystem::temp_directory_path() /
        ("kestor_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) +
         "_" + std::to_string(getpid()));
    TempDir() {
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
    }
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string operator/(const std::string& name) const { return (path / name).string(); }
};

}  // namespace kestor_test
