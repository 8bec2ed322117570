#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"

// Finding, starting and listing applications by bundle identifier.
//
// An installed application is a desktop entry named BUNDLE_IDENTIFIER.desktop in an "applications"
// folder of the XDG data folders; its Exec program lies inside the bundle.
//
// Threads: any.

namespace utilia::platform {

// Contract: never renumber. Values of the original platform.
enum class WorkspaceLaunchOptions : std::uint32_t {
    None = 0,
    Async = 0x10000,
};

class UTILIA_EXPORT Workspace final {
public:
    Workspace() = delete;

    // The resolved path of the installed application's bundle; empty when none is installed.
    static std::optional<std::string>
    URLForApplicationWithBundleIdentifier(std::string_view bundleIdentifier);

    // The same, with the reason where there is none: NotFound when no desktop entry names the
    // application (or the user has hidden it), Refused when one does that leads to no application of
    // this identifier, because its bundle or program is missing or damaged.
    static Result<std::string>
    findApplicationWithBundleIdentifier(std::string_view bundleIdentifier);

    // Starts the application unless one of its identifier runs; a running one is handed the
    // arguments as a reopen instead. Several launches at the same time start one process.
    //
    // A new process gets the arguments of the desktop entry and then these, a session of its own,
    // default signals, null standard streams, no other descriptor, this process's environment, and
    // the user's home (or "/") as its folder. It is reaped when it ends, without SIGCHLD.
    //
    // Without Async the answer waits until the application is listed as running, at most 5 s; an
    // application that ends with status 0 before that declined to run, which is success. With Async
    // it waits for nothing: what must wait goes on in the background, and is logged when it fails.
    // Fails when the application is not installed, cannot be started, ends with another status, or
    // runs but takes no arguments; with Busy when another launch of it does not get on for 2 s.
    static Result<void>
    launchAppWithBundleIdentifier(std::string_view bundleIdentifier, WorkspaceLaunchOptions options,
                                  const std::vector<std::string>& arguments = {});
    // The same for a bundle that need not be installed.
    static Result<void> launchApplicationAtPath(std::string_view bundlePath,
                                                WorkspaceLaunchOptions options,
                                                const std::vector<std::string>& arguments = {});
};

// The processes that run as an application. What the kernel says: a process is listed from the end
// of its start-up checks until it ends, however it ends.
class UTILIA_EXPORT RunningApplication final {
public:
    // Those of one bundle identifier (the case of ASCII letters does not matter), the calling
    // process included, sorted by process id. Never fails: empty when none runs.
    static std::vector<RunningApplication>
    runningApplicationsWithBundleIdentifier(std::string_view bundleIdentifier);

    // Lists the calling process under its main bundle's identifier until it ends. Done by
    // Application and by the start-up checks; only the first call does anything. Fails without a
    // main bundle, or with the runtime folder's error.
    static Result<void> registerCurrentApplication();

    std::int64_t processIdentifier() const { return processIdentifier_; }
    const std::string& bundleIdentifier() const { return bundleIdentifier_; }

private:
    std::int64_t processIdentifier_ = 0;
    std::string bundleIdentifier_;
};

}  // namespace utilia::platform
