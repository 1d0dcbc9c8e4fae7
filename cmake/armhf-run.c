/* armhf-run: runs one program of the armhf build, built for the machine that
 * runs the suites. `armhf-run PROGRAM ARGS...` starts an ARM ELF program
 * through qemu-user with the armhf root as its prefix, and any other program
 * (a shell, python, a program of the machine) directly, in the same process.
 * It is both CMake's CMAKE_CROSSCOMPILING_EMULATOR, which starts the suites,
 * and LUMORA_EXEC_WRAPPER, through which the suites and the host kit start
 * the service, lumora-tv, the engine's variants and the web server: qemu-user
 * does not follow an exec of another ARM program, and this machine has no
 * binfmt_misc to do it instead.
 *
 *   LUMORA_ARM_ROOT   the armhf root (default: the one it was built for)
 *   LUMORA_ARM_QEMU   the emulator (default: qemu-arm-static on PATH)
 *
 * Exit status: the program's; 127 when it cannot be started. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef ARMHF_RUN_ROOT
#define ARMHF_RUN_ROOT ""
#endif

enum { ELF_MACHINE_ARM = 40 };

/* The file execvp would run for NAME: NAME itself when it holds a slash,
 * else the first executable of that name on PATH. */
static int find_program(const char *name, char *out, size_t size)
{
    if (strchr(name, '/')) {
        snprintf(out, size, "%s", name);
        return 1;
    }
    const char *path = getenv("PATH");
    if (!path || !*path)
        path = "/usr/local/bin:/usr/bin:/bin";
    while (*path) {
        size_t len = strcspn(path, ":");
        snprintf(out, size, "%.*s%s%s", (int)len, path, len ? "/" : "", name);
        if (access(out, X_OK) == 0)
            return 1;
        path += len;
        if (*path == ':')
            path++;
    }
    return 0;
}

/* A 32-bit little-endian ELF file for ARM. */
static int is_arm_elf(const char *file)
{
    unsigned char head[20];
    int fd = open(file, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    ssize_t got = read(fd, head, sizeof head);
    close(fd);
    return got == (ssize_t)sizeof head && memcmp(head, "\177ELF", 4) == 0 && head[4] == 1 && head[5] == 1 &&
           (head[18] | head[19] << 8) == ELF_MACHINE_ARM;
}

/* Signals 32 and 33 are the C library's own: an ARM program cannot name
 * them through qemu-user (its own 32 and 33 are mapped to other signals), so
 * when whoever started the suites ignored them, the program's reset of every
 * signal would not reach them and a program it starts would inherit that.
 * They are set to their default here, where they can be. */
static void default_library_signals(void)
{
    for (int sig = 32; sig <= 33; sig++) {
        unsigned long action[8] = {0}; /* the kernel's sigaction: SIG_DFL, no flags, no mask */
        syscall(SYS_rt_sigaction, sig, action, NULL, 8);
    }
}

int main(int argc, char **argv)
{
    if (argc < 2 || strcmp(argv[1], "--help") == 0) {
        fprintf(argc < 2 ? stderr : stdout,
                "usage: armhf-run PROGRAM [ARGS...]\n"
                "Runs PROGRAM through qemu-user with the armhf root as its prefix when it is an ARM\n"
                "program, directly otherwise. LUMORA_ARM_ROOT: the root (%s);\n"
                "LUMORA_ARM_QEMU: the emulator (qemu-arm-static).\n",
                *ARMHF_RUN_ROOT ? ARMHF_RUN_ROOT : "none built in");
        return argc < 2 ? 2 : 0;
    }
    default_library_signals();
    char file[4096];
    if (!find_program(argv[1], file, sizeof file)) {
        fprintf(stderr, "armhf-run: cannot run %s: no such program\n", argv[1]);
        return 127;
    }
    /* execv, not execvp: a file the kernel refuses (another CPU's program)
     * must fail here, not be handed to the shell as a script. */
    if (!is_arm_elf(file)) {
        execv(file, argv + 1);
        fprintf(stderr, "armhf-run: cannot run %s: %s\n", argv[1], strerror(errno));
        return 127;
    }

    const char *root = getenv("LUMORA_ARM_ROOT");
    if (!root || !*root)
        root = ARMHF_RUN_ROOT;
    const char *qemu = getenv("LUMORA_ARM_QEMU");
    if (!qemu || !*qemu)
        qemu = "qemu-arm-static";
    if (!*root) {
        fprintf(stderr, "armhf-run: %s is an ARM program and no armhf root is known: set LUMORA_ARM_ROOT\n", argv[1]);
        return 127;
    }

    /* qemu -L ROOT -0 ARGV0 FILE ARGS...: the program sees its own argv[0]. */
    char **args = calloc((size_t)argc + 6, sizeof *args);
    if (!args)
        return 127;
    int n = 0;
    args[n++] = (char *)qemu;
    args[n++] = "-L";
    args[n++] = (char *)root;
    args[n++] = "-0";
    args[n++] = argv[1];
    args[n++] = file;
    for (int i = 2; i < argc; i++)
        args[n++] = argv[i];
    args[n] = NULL;
    execvp(qemu, args);
    fprintf(stderr, "armhf-run: cannot run %s: %s (is qemu-user-static installed?)\n", qemu, strerror(errno));
    free(args);
    return 127;
}
