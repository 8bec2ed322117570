#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace utilia::platform {

// The role "reportingApplication": an application that tells what happens to it through a pipe
// (ReportPipe), whose path is its first argument. Its lines are "up PROCESS|ARGUMENT…" (with the
// arguments after the first) when it has finished launching, "reopen|ARGUMENT…" and "end".

// What the role does.
int runReportingApplication(const std::string& pipe, const std::vector<std::string>& arguments);

// The process id in an "up" line; -1 for any other line.
pid_t processOf(const std::optional<std::string>& upLine);

}  // namespace utilia::platform
