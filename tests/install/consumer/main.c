/* Uses the public header from plain C: records, callback types and a real call. */
#include <kestor.h>
#include <stdio.h>
#include <string.h>

static void onProgress(int percent, bool* cancel, void* user) {
    (void)percent;
    (void)cancel;
    (void)user;
}

int main(void) {
    const double K[9] = {2, 0, 0.5, 0, 2, 0.5, 0, 0, 1};
    const float depth[4] = {1, 1, 1, 1};
    float vmap[12], nmap[12];
    KESTORPara para;
    KESTORIndexPair pair = {1, 2};
    KESTORProgressFunc progress = onProgress;
    memset(&para, 0, sizeof(para));
    (void)progress;
    if (strcmp(KESTORVersion(), "1.1.3") != 0) return 1;
    if (KESTORDepthToVmapNmap(K, depth, NULL, vmap, nmap, 2, 2) != KESTOR_STATUS_OK) return 2;
    if (KESTORDepthToVmapNmap(NULL, depth, NULL, vmap, nmap, 2, 2) != KESTOR_STATUS_BAD_ARGUMENT)
        return 3;
    printf("consumer ok: %s, z %.1f, pair %d-%d\n", KESTORVersion(), vmap[2], pair.first,
           pair.second);
    return 0;
}
