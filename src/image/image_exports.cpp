// Exports of the image kernels: argument checks, then views over the caller's packed arrays.
#include "image/vertex_normal_maps.h"
#include "kestor.h"

using namespace kestor;

extern "C" {

int KESTORDepthToVmapNmap(const double* K, const float* depth, const uint8_t* mask, float* vmap,
                          float* nmap, int width, int height) {
    if (K == nullptr || depth == nullptr || vmap == nullptr || width < 1 || height < 1)
        return KESTOR_STATUS_BAD_ARGUMENT;
    const Intrinsics k = intrinsicsFromMatrix(K);
    const auto vertices = packedView(reinterpret_cast<Float3*>(vmap), width, height);
    depthToVmap(k, packedView(depth, width, height), packedView(mask, width, height), vertices);
    if (nmap != nullptr)
        vmapToNmap(constView(vertices), packedView(reinterpret_cast<Float3*>(nmap), width, height));
    return KESTOR_STATUS_OK;
}

}  // extern "C"
