#include "measure/KeyFrames.h"

#include <vector>

namespace vyra {

const std::vector<KeyFrameField>& KeyFrameFields() {
#define VYRA_FIELD(group, label, key, member, index) {KeyFrameGroup::group, label, #key, &MeasureResult::member},
    static const std::vector<KeyFrameField> fields = {VYRA_KEY_FRAME_TABLE(VYRA_FIELD)};
#undef VYRA_FIELD
    return fields;
}

namespace detail {

int KeyFrameIndex(size_t row, const AnalysisResult& a, const VisualProgress& v) {
#define VYRA_INDEX(group, label, key, member, index) [](const AnalysisResult& a, const VisualProgress& v) { \
    static_cast<void>(a);                                                                                 \
    static_cast<void>(v);                                                                                 \
    return index;                                                                                         \
},
    using IndexOf = int (*)(const AnalysisResult&, const VisualProgress&);
    static const IndexOf indices[] = {VYRA_KEY_FRAME_TABLE(VYRA_INDEX)};
#undef VYRA_INDEX
    return indices[row](a, v);
}

}  // namespace detail
}  // namespace vyra
