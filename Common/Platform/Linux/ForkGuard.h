#pragma once

namespace utilia::platform {

// Descriptors that a forked child must not keep, because the kernel would believe that this process
// still holds its locks and names when only the child lives. They are closed in the child, before
// fork() returns there.
//
// Threads: any.
class ForkGuard final {
public:
    static void closeInChild(int descriptor);
    // Opens a file that no child has, not even one that is forked at this moment; -1 with errno. Its
    // number is never that of a standard stream, or what the process prints would land in it.
    static int open(const char* path, int flags, unsigned mode = 0);
    // Closes it in the same way. False in a forked child, where nothing is done.
    static bool close(int descriptor);
    // To be called before the descriptor is closed. False in a forked child, where the descriptor
    // is closed already and its number may be another file's by now.
    static bool forget(int descriptor);
    // For a descriptor from open() that stays open while others of this process may close it and get
    // its number: marks the open file itself. What has the number without the mark is another file,
    // and a child does not close it. False with errno where there are no marks.
    static bool mark(int descriptor);
    static bool isMarked(int descriptor);
    // As forget(), for a number that was marked and is another file's by now.
    static bool forgetMarked(int descriptor);
    // Differs between a process and its forked children, once a descriptor was given here. A loop
    // asks in every turn, where a system call for the process id would be felt.
    static unsigned generation();
    ForkGuard() = delete;
};

}  // namespace utilia::platform
