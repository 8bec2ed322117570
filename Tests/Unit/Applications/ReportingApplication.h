#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace utilia::platform {

// The role "reportingApplication": an application that tells what happens to it through a pipe
// (ReportPipe), whose path is its first argument. Its lines are "up PROCESS|ARGUMENT…" (with the
// arguments after the first) when it has finished launching, "reopen|ARGUMENT…" and "end".

//
// The role "lingeringApplication" takes the path of a named pipe as its second argument, the gate;
// after "end" it stays inside its will-terminate observer until the gate is opened for writing.

// What the roles do; without a gate for the first one.
int runReportingApplication(const std::string& pipe, const std::vector<std::string>& arguments,
                            const std::string& gate = {});

// Waits for the other end of a gate to be opened.
void passGate(const std::string& gate);
void openGate(const std::string& gate);

// The process id in an "up" line; -1 for any other line.
pid_t processOf(const std::optional<std::string>& upLine);

}  // namespace utilia::platform
