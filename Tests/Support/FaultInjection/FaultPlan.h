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
}
