/*
 * Handing the process over to fork, exec and posix_spawn.  A frame-access
 * handle belongs to the process that opened it, and a kernel socket in
 * bypass mode would go deaf without it, so before a new process or image
 * is made every record is torn down, every socket goes back to the kernel,
 * and the library's own entry is taken out of the preload variables so
 * that programs started through the environment do not load it.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "core/ost.h"

/* Whether a preload entry names this library, by any path. */
static bool
ost_is_our_entry(const char *entry, size_t len)
{
	static const char name[] = "ostrel.so";
	const size_t nlen = sizeof(name) - 1;
	const char *base = entry;

	for (size_t i = 0; i < len; i++) {
		if (entry[i] == '/')
			base = entry + i + 1;
	}
	len -= (size_t)(base - entry);
	return len >= nlen && memcmp(base, name, nlen) == 0 &&
	    (len == nlen || base[nlen] == '.');
}

/*
 * Takes this library's entries out of a preload list, which the run-time
 * linker splits at colons and spaces; the other entries keep their order
 * and the separator before them.  Nothing left: the variable goes.  A
 * fork that succeeds must leave errno alone.
 */
void
ost_env_cleanup(const char *name)
{
	const char *value = getenv(name);
	const char *p;
	char *out, *o;
	bool found = false;
	int saved_errno = errno;

	if (value == NULL)
		return;
	out = (char *)malloc(strlen(value) + 1);
	if (out == NULL) {
		(void)unsetenv(name);
		errno = saved_errno;
		return;
	}
	o = out;
	for (p = value; *p != '\0';) {
		char sep = *p == ':' || *p == ' ' ? *p++ : '\0';
		size_t len = strcspn(p, ": ");

		if (len != 0 && ost_is_our_entry(p, len)) {
			found = true;
		} else if (len != 0) {
			if (o != out)
				*o++ = sep; /* not the first: has one */
			memcpy(o, p, len);
			o += len;
		}
		p += len;
	}
	*o = '\0';
	if (found && o == out)
		(void)unsetenv(name);
	else if (found && setenv(name, out, 1) != 0)
		(void)unsetenv(name);
	free(out);
	errno = saved_errno;
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
