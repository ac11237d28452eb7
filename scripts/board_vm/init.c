/* init.c: the first process of the emulated board. The console takes one command a line, and answers each with a line
 * that begins with "init:", in one piece among what others print.
 *
 *   run PROGRAM ARGUMENT...   starts it                                   init: its process
 *   end                       ends it with SIGTERM, and waits for that    init: its status, as of waitpid
 *   set FILE VALUE            writes the file                             init: 0
 *   get FILE                  reads at most 64 KiB of it                  init: its bytes in hexadecimal
 *
 * What fails is answered with "init: error" and the errno. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

enum { LINE_BYTES = 256, WORDS = 8, FILE_BYTES = 65536 };

static pid_t program; /* that runs; 0: none */

static void answer(int value) {
  if (value < 0)
    printf("init: error %d\n", errno);
  else
    printf("init: %d\n", value);
}

static int run(char **words) {
  program = fork();
  if (program != 0) return program;
  execv(words[0], words);
  _exit(127);
}

static int end(void) {
  int status = 0;
  if (program > 0 && (kill(program, SIGTERM) != 0 || waitpid(program, &status, 0) < 0)) return -1;
  program = 0;
  return status;
}

static int set(const char *path, const char *value) {
  const int file = open(path, O_WRONLY);
  if (file < 0) return -1;
  const int written = write(file, value, strlen(value)) < 0 ? -1 : 0;
  close(file);
  return written;
}

static void get(const char *path) {
  static unsigned char bytes[FILE_BYTES];
  const int file = open(path, O_RDONLY);
  ssize_t size = 0, part = file < 0 ? -1 : 1;
  for (; part > 0; size += part) part = read(file, bytes + size, (size_t)(FILE_BYTES - size));
  if (part < 0) {
    answer(-1);
  } else {
    printf("init: ");
    for (ssize_t i = 0; i < size; ++i) printf("%02x", bytes[i]);
    puts("");
  }
  if (file >= 0) close(file);
}

static void obey(char *line) {
  char *words[WORDS + 1] = {NULL}, *rest = line;
  int count = 0;
  while (count < WORDS && (words[count] = strtok_r(rest, " \n", &rest))) ++count;
  if (count >= 2 && strcmp(words[0], "run") == 0)
    answer(run(words + 1));
  else if (count == 1 && strcmp(words[0], "end") == 0)
    answer(end());
  else if (count == 3 && strcmp(words[0], "set") == 0)
    answer(set(words[1], words[2]));
  else if (count == 2 && strcmp(words[0], "get") == 0)
    get(words[1]);
  else
    printf("init: error %d\n", EINVAL);
}

int main(void) {
  static char out[2 * FILE_BYTES + LINE_BYTES]; /* a line leaves in one write */
  char line[LINE_BYTES];
  struct termios console;
  setvbuf(stdout, out, _IOFBF, sizeof out);
  mount("proc", "/proc", "proc", 0, NULL);
  mount("sysfs", "/sys", "sysfs", 0, NULL);
  mount("tmpfs", "/tmp", "tmpfs", 0, NULL);
  tcgetattr(0, &console);
  console.c_lflag &= ~(tcflag_t)ECHO;
  tcsetattr(0, TCSANOW, &console);
  puts("init: up");
  fflush(stdout);
  while (fgets(line, sizeof line, stdin)) {
    obey(line);
    fflush(stdout);
  }
  return 0; /* which ends the machine */
}
