/* Prints the layout of the C interface's structures as the C compiler lays
 * them out from vyra.h, one line per field, "STRUCT FIELD OFFSET SIZE", and
 * one "STRUCT sizeof SIZE" line per structure, for hosts in other languages
 * to check their own declarations against. */
#include <stddef.h>
#include <stdio.h>

#include "vyra.h"

#define FIELD(type, field) \
    printf("%s %s %zu %zu\n", #type, #field, offsetof(type, field), sizeof(((type*)0)->field))

int main(void) {
    printf("VyraSettings sizeof %zu\n", sizeof(VyraSettings));
    FIELD(VyraSettings, struct_size);
    FIELD(VyraSettings, timing);
    FIELD(VyraSettings, fps);
    FIELD(VyraSettings, start);
    FIELD(VyraSettings, end);
    FIELD(VyraSettings, page_type);
    FIELD(VyraSettings, stable_baseline);
    FIELD(VyraSettings, has_crop);
    FIELD(VyraSettings, crop);
    FIELD(VyraSettings, ignore);
    FIELD(VyraSettings, ignore_count);
    FIELD(VyraSettings, launch_time_mode);
    FIELD(VyraSettings, save_frames_dir);
    FIELD(VyraSettings, progress);
    FIELD(VyraSettings, progress_user);
    FIELD(VyraSettings, noise_tolerance);
    FIELD(VyraSettings, progress_out);
    FIELD(VyraSettings, frame_times_out);
    FIELD(VyraSettings, series_capacity);
    FIELD(VyraSettings, report_path);
    FIELD(VyraSettings, filmstrip_path);
    FIELD(VyraSettings, report_interval_ms);

    printf("VyraResult sizeof %zu\n", sizeof(VyraResult));
    FIELD(VyraResult, struct_size);
    FIELD(VyraResult, status);
    FIELD(VyraResult, page_type);
    FIELD(VyraResult, timing);
    FIELD(VyraResult, launch_time_mode);
    FIELD(VyraResult, fps);
    FIELD(VyraResult, frame_count);
    FIELD(VyraResult, frame_width);
    FIELD(VyraResult, frame_height);
    FIELD(VyraResult, launch_time);
    FIELD(VyraResult, estimated_time_count);
    FIELD(VyraResult, load_finished);
    FIELD(VyraResult, baseline);
    FIELD(VyraResult, logo_appear);
    FIELD(VyraResult, logo_disappear);
    FIELD(VyraResult, first_frame);
    FIELD(VyraResult, motion_start);
    FIELD(VyraResult, loaded_psnr);
    FIELD(VyraResult, pre_loaded_psnr);
    FIELD(VyraResult, object_count_length);
    FIELD(VyraResult, first_non_blank_object_count);
    FIELD(VyraResult, feature_matching_count);
    FIELD(VyraResult, first_visual_change);
    FIELD(VyraResult, last_visual_change);
    FIELD(VyraResult, visually_complete_85);
    FIELD(VyraResult, visually_complete_95);
    FIELD(VyraResult, visually_complete_99);
    FIELD(VyraResult, speed_index_ms);
    FIELD(VyraResult, visually_complete);
    FIELD(VyraResult, noise_tolerance);
    FIELD(VyraResult, noise_tolerance_estimated);

    printf("VyraRegion sizeof %zu\n", sizeof(VyraRegion));
    printf("VyraKeyFrame sizeof %zu\n", sizeof(VyraKeyFrame));
    return 0;
}
