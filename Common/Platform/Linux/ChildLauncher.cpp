#include "Common/Platform/Linux/ChildLauncher.h"

#include <csignal>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Common/Platform/Linux/Folders.h"

namespace utilia::platform {
namespace {

class SpawnActions final {
public:
    SpawnActions() { error_ = posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;

    template <class Add, class... Arguments>
    void add(Add function, Arguments... arguments) {
        if (error_ == 0) error_ = function(&actions_, arguments...);
    }
    int error() const { return error_; }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
    int error_ = 0;
};

class SpawnAttributes final {
public:
    explicit SpawnAttributes(int flags) {
        posix_spawnattr_init(&attributes_);
        sigset_t every;
        sigset_t none;
        sigfillset(&every);
        sigemptyset(&none);
        posix_spawnattr_setsigdefault(&attributes_, &every);
        posix_spawnattr_setsigmask(&attributes_, &none);
        flags |= POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
        posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    const posix_spawnattr_t* get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
};

Result<Child> spawn(const std::string& program, const SpawnActions& actions,
                    const SpawnAttributes& attributes, char* const argv[], char* const envp[]) {
    if (actions.error() != 0) return Error::posix(actions.error(), "prepare the start of", program);
    Child child;
    const int failed =
        posix_spawn(&child.process, program.c_str(), actions.get(), attributes.get(), argv, envp);
    if (failed != 0) return Error::posix(failed, "start", program);
    // Nobody else reaps the child, so its id still means it. Without a pidfd the watcher asks for
    // it by its id.
    child.handle = UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, child.process, 0)));
    return child;
}

// A folder that cannot be entered would make the start fail.
std::string workingFolder() {
    std::string home = homeFolder();
    struct stat found {};
    const bool usable = stat(home.c_str(), &found) == 0 && S_ISDIR(found.st_mode) &&
                        access(home.c_str(), X_OK) == 0;
    return usable ? home : "/";
}

}  // namespace

std::vector<std::string> currentEnvironment() {
    std::vector<std::string> environment;
    for (char** entry = environ; entry && *entry; ++entry) environment.emplace_back(*entry);
    return environment;
}

Result<Child> launchChild(const std::string& program, const ChildInput& input) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : input.arguments) {
        if (argument.find('\0') != std::string::npos) {
            return Error::utilia(UtiliaErrorCode::Refused,
                                 program + ": an argument holds a NUL byte");
        }
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const std::string& entry : input.environment)
        envp.push_back(const_cast<char*>(entry.c_str()));
    envp.push_back(nullptr);

    const std::string folder = workingFolder();
    SpawnActions actions;
    int firstClosed = STDERR_FILENO + 1;
    // A descriptor that has the number already loses close-on-exec by this.
    if (input.kept >= 0) actions.add(posix_spawn_file_actions_adddup2, input.kept, firstClosed++);
    actions.add(posix_spawn_file_actions_addchdir_np, folder.c_str());
    actions.add(posix_spawn_file_actions_addopen, STDIN_FILENO, "/dev/null", O_RDONLY, mode_t{0});
    actions.add(posix_spawn_file_actions_addopen, STDOUT_FILENO, "/dev/null", O_WRONLY, mode_t{0});
    actions.add(posix_spawn_file_actions_addopen, STDERR_FILENO, "/dev/null", O_WRONLY, mode_t{0});
    actions.add(posix_spawn_file_actions_addclosefrom_np, firstClosed);
    return spawn(program, actions, SpawnAttributes(POSIX_SPAWN_SETSID), argv.data(), envp.data());
}

Result<Child> launchHelper(const std::string& program, int channel) {
    SpawnActions actions;
    actions.add(posix_spawn_file_actions_adddup2, channel, STDIN_FILENO);
    actions.add(posix_spawn_file_actions_addopen, STDOUT_FILENO, "/dev/null", O_WRONLY, mode_t{0});
    // A helper without standard error would write what belongs there into the next file it opens.
    if (fcntl(STDERR_FILENO, F_GETFD) < 0 || channel == STDERR_FILENO) {
        actions.add(posix_spawn_file_actions_addopen, STDERR_FILENO, "/dev/null", O_WRONLY,
                    mode_t{0});
    }
    actions.add(posix_spawn_file_actions_addclosefrom_np, STDERR_FILENO + 1);
    char* const argv[] = {const_cast<char*>(program.c_str()), nullptr};
    return spawn(program, actions, SpawnAttributes(0), argv, environ);
}

}  // namespace utilia::platform
