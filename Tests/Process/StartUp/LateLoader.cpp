// A program that loads the library itself, when and where its first argument says, and tells what
// becomes of it in lines on the channel of ChildProcess. It is not linked with the library.

#include <cstdio>
#include <string>
#include <thread>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void say(const std::string& line) {
    const std::string text = line + "\n";
    if (write(3, text.data(), text.size()) < 0) _exit(99);
}

void load(const char* library) {
    void* const handle = dlopen(library, RTLD_NOW);
    say(handle ? "loaded" : dlerror());
}

// Lets the process go on when the child has ended, and tells how.
void inChild(void (*work)(const char*), const char* library) {
    const pid_t child = fork();
    if (child == 0) {
        work(library);
        _exit(5);
    }
    int status = 0;
    waitpid(child, &status, 0);
    say("child " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const std::string where = argv[1];
    const char* const library = argv[2];
    say("main");
    if (where == "main thread") load(library);
    if (where == "twice") {
        load(library);
        load(library);
    }
    if (where == "other thread") std::thread([&] { load(library); }).join();
    if (where == "two threads") {
        std::thread first([&] { load(library); });
        std::thread second([&] { load(library); });
        first.join();
        second.join();
    }
    if (where == "forked child") inChild(load, library);
    if (where == "before a fork") {
        load(library);
        inChild([](const char*) { say("in the child"); }, library);
    }
    say("end");
    return 6;
}
