#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/UserDefaults.h"

// The store that the agent and all tools share: one suite of preferences in the group's container,
// reached only under a lock that every process of the product takes.
//
// Protocol: the lock is an exclusive advisory lock on the container folder. Everything that is read
// inside a block is fresh, and what a block sets is in the file before the next holder of the lock
// looks.
//
// The lock is taken once per call and does not nest: a block that calls any function here waits for
// itself for ever. Debug builds end the process with a message instead.
//
// Out of memory, a block that cannot be given what it asks for is not run, and what it set is not
// stored, with one log line; what was stored before stays.
//
// Threads: any; blocks run on the calling thread.

namespace utilia {

inline constexpr std::string_view kAppGroupIdentifier = "7QK2M9ZD4R.com.korvane.utilia";

// Keys of the suite and of a scheduler record. Contract: never rename.
inline constexpr std::string_view kSchedulerKey = "Scheduler";
inline constexpr std::string_view kSchedulerBundleIdKey = "bundleid";
inline constexpr std::string_view kSchedulerNameKey = "name";
inline constexpr std::string_view kSchedulerLaunchAtDateKey = "launchAtDate";    // boolean
inline constexpr std::string_view kSchedulerDateKey = "date";                    // date
inline constexpr std::string_view kSchedulerIntervalKey = "interval";            // seconds
inline constexpr std::string_view kSchedulerLaunchAtLoginKey = "launchAtLogin";  // boolean

// The distributed notification that tells the agent to look at the records again. The functions
// here never post it; ToolScheduler and AgentScheduler do, for the changes that the agent must act
// on. Contract: never rename.
inline constexpr std::string_view kAgentUpdateSchedulerNotification =
    "com.apple.utilia.agentUpdateScheduler";

using AccessBlock = std::function<void(platform::UserDefaults& suite)>;
using ReadBlock = std::function<void(const Dictionary& record)>;
using UpdateBlock = std::function<void(Dictionary& record)>;

// Runs the block with a fresh view of the suite while this process alone holds the store. Waits for
// the lock as long as it takes. When the container cannot be opened the block runs all the same,
// unlocked, and one log line says why. An empty block only takes and releases the lock.
// What a block throws passes through to the caller, after what it had set is written and the lock
// is given up.
UTILIA_EXPORT void accessAppGroupPlist(const AccessBlock& block);

// Calls the block with the first record of this bundle identifier and name; not at all when there
// is none.
UTILIA_EXPORT void readSchedulerPlist(std::string_view bundleId, std::string_view name,
                                      const ReadBlock& block);

// Calls the block with a copy of that record (or a new one), "bundleid" and "name" already set in
// it, and stores what the block made of it as the last of the records. Records equal to the old
// one, entry by entry, go with it; a further record of the same identifier and name but other
// content stays.
UTILIA_EXPORT void updateSchedulerPlist(std::string_view bundleId, std::string_view name,
                                        const UpdateBlock& block);

// The same for the calling tool: its bundle identifier, and its bundle's file name without
// extension. Does nothing, with one log line, in a program without a main bundle.
UTILIA_EXPORT void updateSchedulerForThisTool(const UpdateBlock& block);

// Does nothing; kept because applications call it.
UTILIA_EXPORT void assertAppInAppGroup();

}  // namespace utilia
