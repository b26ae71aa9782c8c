/* A host written in C: vyra.h must compile as C99 and the C interface must
 * answer a missing recording with VYRA_ERROR_NOT_FOUND and a message. */
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "vyra.h"

int main(int argc, char** argv) {
    const char* missing = argc > 1 ? argv[1] : "/nonexistent/recording.mp4";
    VyraSettings settings;
    VyraResult result;
    char error[256];
    VyraStatus status;

    vyra_default_settings(&settings);
    settings.timing = VYRA_TIMING_FRAME_RATE;
    settings.fps = 30.0;
    memset(&result, 0, sizeof result);
    result.struct_size = sizeof result;
    status = vyra_measure(missing, &settings, &result, error, sizeof error);
    if (status != VYRA_ERROR_NOT_FOUND || result.status != VYRA_ERROR_NOT_FOUND) {
        fprintf(stderr, "expected not found, got %d (%s)\n", (int)status, vyra_status_string(status));
        return 1;
    }
    if (strstr(error, "does not exist") == NULL || !isnan(result.launch_time) ||
        result.load_finished.index != -1) {
        fprintf(stderr, "unexpected error text or result: %s\n", error);
        return 1;
    }
    if (strcmp(vyra_status_string(VYRA_OK), "ok") != 0 || vyra_abi_version() != VYRA_ABI_VERSION) {
        fprintf(stderr, "status text or ABI version wrong\n");
        return 1;
    }
    printf("vyra %s: %s\n", vyra_version(), error);
    return 0;
}
