// vyra: what `vyra analyse` prints for a measurement: the text summary and
// the JSON document (schema_version 1). Writers only; they run no
// measurement, so tests call them on results they build themselves.
#ifndef VYRA_TOOL_OUTPUT_H
#define VYRA_TOOL_OUTPUT_H

#include <ostream>
#include <string>

#include <nlohmann/json.hpp>

#include "VyraMeasure.h"

namespace vyra::tool {

using Json = nlohmann::ordered_json;

/** Version of the JSON document's layout; bumped when a field changes meaning or is removed. */
constexpr int kJsonSchemaVersion = 1;

/** printf-style formatting into a std::string. */
std::string Format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

/** Seconds with three decimals; "-" for NaN (not found). */
std::string SecondsText(double value);

/** True when @p text can be a JSON string: valid UTF-8. */
bool IsJsonText(const std::string& text);

/** What the output shows beyond the result itself. */
struct OutputOptions {
    std::string recording;       ///< the recording's path as the user gave it
    bool progressSeries = false; ///< also list every frame's visual progress (--progress)
};

/** The human summary: launch time, key frame tables, frame line, visual progress. */
void WriteSummary(std::ostream& out, const MeasureResult& result, const OutputOptions& options);

/** The JSON document of a measurement. */
Json ResultJson(const MeasureResult& result, const OutputOptions& options);

/**
 * @p value as two-space indented JSON in which arrays of plain values (frame
 * times, object counts) stay on one line, then a newline.
 */
void WriteJson(std::ostream& out, const Json& value);

}  // namespace vyra::tool

#endif  // VYRA_TOOL_OUTPUT_H
