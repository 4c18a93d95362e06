/*
 * Drives the process hand-off the way C programs do: vfork then exec, and
 * the list forms of exec.  Prints what it saw; the calling script judges.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static int
run(const char *how)
{
	volatile int marker = 1234;	/* lives in the frame vfork shares */
	int status;
	pid_t pid = strcmp(how, "vfork") == 0 ? vfork() : fork();

	if (pid == 0) {
		if (strcmp(how, "execle") == 0) {
			char *env[] = { "PROBE=execle", NULL };
			execle("/bin/sh", "sh", "-c", "echo $PROBE; exit 5",
			    (char *)NULL, env);
		} else if (strcmp(how, "execlp") == 0) {
			execlp("echo", "echo", "execlp", "a b", "c", (char *)NULL);
		} else {
			execl("/bin/sh", "sh", "-c", "exit 7", (char *)NULL);
		}
		_exit(127);
	}
	if (pid < 0 || waitpid(pid, &status, 0) != pid)
		return -1;
	if (marker != 1234)
		return -2;
	return WIFEXITED(status) ? WEXITSTATUS(status) : -3;
}

int
main(int argc, char **argv)
{
	for (int i = 1; i < argc; i++) {
		int rc = run(argv[i]);

		printf("%s: %d\n", argv[i], rc);
		fflush(stdout);
	}
	return 0;
}
