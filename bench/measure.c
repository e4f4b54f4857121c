/* Runs one command and reports its wall time and peak resident memory.
 *
 *   measure RESULT_FILE COMMAND [ARG...]
 *
 * writes "seconds peak_kib exit_status" to RESULT_FILE. The command is started from this small
 * process rather than from the benchmark's interpreter because Linux carries a process's resident
 * high-water mark across exec: a child forked from a large parent would report the parent's size. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: measure RESULT_FILE COMMAND [ARG...]\n");
    return 2;
  }
  struct timespec t0, t1;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  pid_t pid = fork();
  if (pid < 0) {
    perror("measure: fork");
    return 2;
  }
  if (pid == 0) {
    execvp(argv[2], argv + 2);
    perror("measure: exec");
    _exit(127);
  }
  int status = 0;
  struct rusage ru;
  if (wait4(pid, &status, 0, &ru) < 0) {
    perror("measure: wait4");
    return 2;
  }
  clock_gettime(CLOCK_MONOTONIC, &t1);
  double sec = (double)(t1.tv_sec - t0.tv_sec) + (double)(t1.tv_nsec - t0.tv_nsec) * 1e-9;
  int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  FILE *f = fopen(argv[1], "w");
  if (!f) {
    perror("measure: result file");
    return 2;
  }
  fprintf(f, "%.6f %ld %d\n", sec, ru.ru_maxrss, code);
  fclose(f);
  return 0;
}
