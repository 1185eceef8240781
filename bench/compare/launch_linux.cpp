// Starts a program a number of times, one after the other, and prints the microseconds from each start to its end.
//
//     launch TIMES PROGRAM ARGUMENT...

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    for (int times = std::atoi(argv[1]); times > 0; --times) {
        const auto start = std::chrono::steady_clock::now();
        pid_t child = 0;
        if (::posix_spawn(&child, argv[2], nullptr, nullptr, argv + 2, ::environ) != 0) return 1;
        int status = 0;
        if (::waitpid(child, &status, 0) != child || status != 0) return 1;
        std::printf("%.1f\n",
                    std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    return 0;
}
