/*
 * Handing the process over to fork, exec and posix_spawn.  A frame-access
 * handle belongs to the process that opened it, and a kernel socket in
 * bypass mode would go deaf without it, so before a new process or image
 * is made every record is torn down, every socket goes back to the kernel,
 * and the library's name is blanked out of the preload variables so that
 * programs started through the environment do not load it.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "core/ost.h"

/*
 * Blanks the word that names the library, keeping the value's length.  Only
 * spaces separate words here: "a.so:ostrel.so.1" is one word and goes whole.
 */
void
ost_env_cleanup(const char *name)
{
	const char *value = getenv(name);
	char *copy, *start, *end;

	if (value == NULL)
		return;
	copy = strdup(value);
	if (copy == NULL) {
		(void)unsetenv(name);
		return;
	}
	start = strstr(copy, "ostrel.so");
	if (start == NULL) {
		free(copy);
		return;
	}
	while (start > copy && start[-1] != ' ')
		start--;
	for (end = start; *end != '\0' && *end != ' '; end++)
		*end = ' ';
	if (setenv(name, copy, 1) != 0)
		(void)unsetenv(name);
	free(copy);
}

void
ost_cleanup(void)
{
	ost_env_cleanup("LD_PRELOAD_32");
	ost_env_cleanup("LD_PRELOAD_64");
	ost_env_cleanup("LD_PRELOAD");
	ost_del_all();
}

/*
 * The argument vector of execl, execle and execlp: arg0, the arguments up
 * to the terminating null, and the null.  For execle, *envpp receives the
 * environment that follows the null.  Null with errno set when memory runs
 * out.
 */
char **
ost_list_argv(const char *arg0, va_list ap, char *const **envpp)
{
	va_list count;
	size_t n = 0;
	char **argv;

	va_copy(count, ap);
	while (va_arg(count, char *) != NULL)
		n++;
	va_end(count);

	argv = (char **)malloc((n + 2) * sizeof(char *));
	if (argv == NULL)
		return NULL;
	argv[0] = (char *)arg0;
	for (size_t i = 1; i <= n; i++)
		argv[i] = va_arg(ap, char *);
	argv[n + 1] = NULL;
	(void)va_arg(ap, char *); /* the terminating null */
	if (envpp != NULL)
		*envpp = va_arg(ap, char *const *);
	return argv;
}
