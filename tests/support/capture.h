// Console capture for the run driver suites: everything a call writes to
// standard output and standard error, at the file-descriptor level.
#ifndef VYRA_TESTS_CAPTURE_H
#define VYRA_TESTS_CAPTURE_H

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace vyra_test {

template <typename T>
struct Captured {
    T value;
    std::string out;
    std::string err;
};

// Runs @p action with both console streams captured; returns its result and
// the text written to each stream.
template <typename Action>
auto captureConsole(Action&& action) -> Captured<decltype(action())> {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    auto value = std::forward<Action>(action)();
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    return {std::move(value), std::move(out), std::move(err)};
}

// Same for an action without a result: only the standard output text.
template <typename Action>
std::string stdoutOf(Action&& action) {
    testing::internal::CaptureStdout();
    std::forward<Action>(action)();
    return testing::internal::GetCapturedStdout();
}

}  // namespace vyra_test

#endif  // VYRA_TESTS_CAPTURE_H
