#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

// Functions of a test binary that run in a process of their own.
//
//     UTILIA_CHILD_ROLE(holdLock) {        // int holdLock(ChildRole& self)
//         … self.arguments[0] …
//         self.say("locked");              // a line to the parent
//         self.waitForLine();              // a line from the parent, or "" when it is gone
//         return 0;                        // the exit status
//     }

namespace utilia::test {

struct ChildRole {
    std::vector<std::string> arguments;

    void say(const std::string& line) const;  // to the parent; unbuffered, no line break inside
    std::string waitForLine() const;          // blocks; "" when the parent closed its end or died
};

using ChildRoleFunction = int (*)(ChildRole&);

// Registers at start-up; use the macro.
struct ChildRoleRegistration {
    ChildRoleRegistration(const char* name, ChildRoleFunction function);
};

// A role is killed when the thread ends that has started it: one of its test usually, but of a launcher where something
// else launches it. A role that is to live on calls this first. It is then killed after this time, even if its test has
// ended long before.
void outliveLauncher(std::chrono::seconds time = std::chrono::minutes(10));

// For main(): when the arguments are those that ChildProcess gives to a child, runs the role and answers its exit
// status in `status`.
bool runChildRole(int argc, char** argv, int* status);

}  // namespace utilia::test

#define UTILIA_CHILD_ROLE(name)                                                                    \
    static int name(::utilia::test::ChildRole& self);                                              \
    static const ::utilia::test::ChildRoleRegistration name##Registration(#name, &name);           \
    static int name([[maybe_unused]] ::utilia::test::ChildRole& self)
