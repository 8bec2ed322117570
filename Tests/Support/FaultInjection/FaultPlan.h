#pragma once

// What the interposing library (Interposer.cpp) offers to the harness
// (Tests/Support/FaultInjection.h). Plain C, so that the library needs nothing but libc and can be
// loaded before everything else.

extern "C" {

enum UtiliaFaultCall {
    kUtiliaFaultAnySystemCall,  // every one of the following but the memory functions
    kUtiliaFaultOpen,           // open, openat
    kUtiliaFaultRead,           // read, pread
    kUtiliaFaultWrite,          // write, pwrite, writev, pwritev
    kUtiliaFaultSync,           // fsync, fdatasync
    kUtiliaFaultRename,         // rename, renameat, renameat2
    kUtiliaFaultUnlink,         // unlink, unlinkat
    kUtiliaFaultLink,           // link, linkat
    kUtiliaFaultTruncate,       // ftruncate
    kUtiliaFaultFstat,          // fstat
    kUtiliaFaultStat,           // stat, lstat, fstatat
    kUtiliaFaultFlock,          // flock
    kUtiliaFaultMkdir,          // mkdir, mkdirat
    kUtiliaFaultMmap,           // mmap
    kUtiliaFaultMemfd,          // memfd_create
    kUtiliaFaultFcntl,          // fcntl
    kUtiliaFaultSocket,         // socket
    kUtiliaFaultBind,           // bind
    kUtiliaFaultListen,         // listen
    kUtiliaFaultConnect,        // connect
    kUtiliaFaultAccept,         // accept4
    kUtiliaFaultSend,           // send, sendmsg
    kUtiliaFaultReceive,        // recv, recvmsg
    kUtiliaFaultPoll,           // poll
    kUtiliaFaultSetAttribute,   // setxattr, fsetxattr
    kUtiliaFaultMode,           // chmod, fchmod
    kUtiliaFaultOwner,          // fchownat
    kUtiliaFaultMemory,         // malloc, calloc, realloc
    kUtiliaFaultCallCount,
};

enum UtiliaFaultKind {
    kUtiliaFaultError,       // fails with `error`, and is not made
    kUtiliaFaultShort,       // transfers half of what was asked for
    kUtiliaFaultKillBefore,  // the process dies of SIGKILL instead of making the call
    kUtiliaFaultKillAfter,   // … after the kernel has done it
    kUtiliaFaultStopBefore,  // the process stops (SIGSTOP), and makes the call when it is continued
};

struct UtiliaFaultPlan {
    int call;
    int kind;
    int error;
    unsigned ordinal;   // the first call that is hit, counted from 1 after arming
    int isForEver;      // every later one too
    int isEveryThread;  // else only those of the thread that armed it
};

// Answers a slot, or -1 when four plans are armed already.
int utiliaFaultArm(const struct UtiliaFaultPlan* plan);
void utiliaFaultDisarm(int slot);
// Calls that the plan matched since it was armed, and those of them that were hit.
unsigned utiliaFaultCalls(int slot);
unsigned utiliaFaultHits(int slot);
// "rename" for kUtiliaFaultRename.
const char* utiliaFaultCallName(int call);

// A call that has changed files, after it succeeded.
struct UtiliaFileChange {
    int call = 0;                 // kUtiliaFaultOpen, Write, Sync, Rename, Link, Unlink or Truncate
    int file = -1;                // open, write (-1: one of another kind), sync and truncate
    int folder = -1;              // `path` is relative to it
    const char* path = nullptr;   // opened or removed; the new name for rename and link
    int fromFolder = -1;          // `from` is relative to it
    const char* from = nullptr;   // the old name, for rename and link
    int flags = 0;                // of open
    const void* bytes = nullptr;  // written
    unsigned long size = 0;       // written, or what is left by a truncate
};

// From now on each change that the calling thread makes is told to the observer; null ends that.
void utiliaFaultObserve(void (*observer)(const struct UtiliaFileChange* change));
}
