// Exports of the instance family: making and tearing down an instance, its parameter record, the
// callback slots and the spill-cache path. Callbacks are bound with their user argument into the
// callables the engine calls, which hand the application the public part of each frame.
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/argument_sizes.h"
#include "core/fusion_instance.h"
#include "pipeline/pipeline_threads.h"
#include "kestor.h"

using namespace kestor;

namespace {

RGBDFusionImpl* instanceOf(void* handle) { return static_cast<RGBDFusionImpl*>(handle); }

}  // namespace

extern "C" {

int KESTORCreateInstance(void** instance, const double* K, int width, int height,
                         const double* levelDistances, const int* levelIterations, int levels,
                         int groupSize, unsigned flags) {
    // An image too large for the int pixel counts of the frames is refused before anything is
    // made; other sizes are taken as they come.
    if (instance == nullptr || !imageValuesFit(width, height)) return KESTOR_STATUS_BAD_ARGUMENT;
    // The block is plain memory that no export frees; only its allocation is tested.
    void* block = std::malloc(sizeof(RGBDFusionImpl));
    *instance = block;
    if (block == nullptr) return KESTOR_STATUS_NO_MEMORY;
    new (block) RGBDFusionImpl(K, width, height, levelDistances, levelIterations, levels,
                               groupSize, flags);
    return KESTOR_STATUS_OK;
}

int KESTORDestroyInstance(void* instance) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    RGBDFusionImpl* f = instanceOf(instance);
    stopPipeline(*f);
    releaseInstanceContents(*f);
    f->~RGBDFusionImpl();
    return KESTOR_STATUS_OK;
}

int KESTORSetPara(void* instance, const KESTORPara* para) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    if (para == nullptr) return KESTOR_STATUS_BAD_ARGUMENT;
    std::memcpy(&instanceOf(instance)->para, para, sizeof(KESTORPara));
    return KESTOR_STATUS_OK;
}

int KESTORGetPara(void* instance, KESTORPara* para) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    if (para == nullptr) return KESTOR_STATUS_BAD_ARGUMENT;
    std::memcpy(para, &instanceOf(instance)->para, sizeof(KESTORPara));
    return KESTOR_STATUS_OK;
}

int KESTORSetTraceCallback(void* instance, KESTORTraceFunc func, void* user) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    TraceFunc slot;
    if (func != nullptr)
        slot = [func, user](const _Frame* frame) { func(&frame->info, &frame->track, user); };
    instanceOf(instance)->traceFunc = std::move(slot);
    return KESTOR_STATUS_OK;
}

int KESTORSetPairMatchFunc(void* instance, KESTORPairMatchFunc func, void* user) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    PairMatchFunc slot;
    if (func != nullptr) {
        // The application starts from nothing: the estimate it is given is zero, and only a
        // true answer replaces the caller's transform.
        slot = [func, user](const _Frame* first, const _Frame* second, RT_<double>& rt,
                            _MatchFlag flag) {
            double rows[3][4] = {};
            if (!func(&first->info, &second->info, rows, int(flag), user)) return false;
            rt = poseToDouble(poseView(&rows[0][0]));
            return true;
        };
    }
    instanceOf(instance)->pairMatchFunc = std::move(slot);
    return KESTOR_STATUS_OK;
}

int KESTORSetCalcScoreFunc(void* instance, KESTORCalcScoreFunc func, void* user) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    CalcScoreFunc slot;
    if (func != nullptr)
        slot = [func, user](const _Frame* candidate, const _Frame* current) {
            return func(&candidate->info, &current->info, user);
        };
    instanceOf(instance)->calcScoreFunc = std::move(slot);
    return KESTOR_STATUS_OK;
}

int KESTORSetAttachAllocator(void* instance, KESTORAttachAllocFunc alloc,
                             KESTORAttachFreeFunc release) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    RGBDFusionImpl& f = *instanceOf(instance);
    f.attachAlloc = alloc ? AttachAllocFunc(alloc) : AttachAllocFunc();
    f.attachFree = release ? AttachFreeFunc(release) : AttachFreeFunc();
    return KESTOR_STATUS_OK;
}

int KESTORSetCachePath(void* instance, const char* path) {
    if (instance == nullptr) return KESTOR_STATUS_NULL_INSTANCE;
    return instanceOf(instance)->cache->open(path) ? KESTOR_STATUS_OK : KESTOR_STATUS_FAILED;
}

}  // extern "C"
