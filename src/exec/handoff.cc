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

#include "ost_impl.h"
#include "platform/frio_loader.h"

extern "C" {
int (*real_execv)(const char *, char *const[]);
int (*real_execve)(const char *, char *const[], char *const[]);
int (*real_execvp)(const char *, char *const[]);
int (*real_execvpe)(const char *, char *const[], char *const[]);
int (*real_fexecve)(int, char *const[], char *const[]);
pid_t (*real_fork)(void);
pid_t (*real_vfork)(void);
int (*real_posix_spawn)(pid_t *, const char *,
    const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
    char *const[], char *const[]);
int (*real_posix_spawnp)(pid_t *, const char *,
    const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
    char *const[], char *const[]);
}

template <typename Fn>
static void
lookup(Fn *slot, const char *name, const char *missing_fmt)
{
	*slot = reinterpret_cast<Fn>(ost_libc_lookup(name, missing_fmt));
}

void
ost_set_exec(void)
{
	lookup(&real_execv, "execv", "execv() not found: %s\n");
	lookup(&real_execve, "execve", "execve() not found: %s\n");
	lookup(&real_execvp, "execvp", "execvp() not found: %s\n");
	lookup(&real_execvpe, "execvpe", "execvpe() not found: %s\n");
	lookup(&real_fexecve, "fexecve", "fexecve() not found: %s\n");
	lookup(&real_fork, "fork", "fork() not found: %s\n");
	lookup(&real_vfork, "vfork", "vfork() not found: %s\n");
	lookup(&real_posix_spawn, "posix_spawn", "posix_spawn() not found: %s\n");
	lookup(&real_posix_spawnp, "posix_spawnp",
	    "posix_spawnp() not found: %s\n");
}

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
		(void) unsetenv(name);
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
		(void) unsetenv(name);
	free(copy);
}

void
ost_cleanup(void)
{
	ost_env_cleanup("LD_PRELOAD_32");
	ost_env_cleanup("LD_PRELOAD_64");
	ost_env_cleanup("LD_PRELOAD");

	for (int i = 0; i < OST_NBUCKETS; i++) {
		fd_tbl_t *ft = &fd_tbl_array[i];
		uost_t *up;

		(void) pthread_mutex_lock(&ft->ft_lock);
		while ((up = (uost_t *)list_remove_head(&ft->ft_head)) != NULL) {
			(void) pthread_mutex_unlock(&ft->ft_lock);

			(void) pthread_mutex_lock(&up->uost_lock);
			up->uost_refcnt++;	/* the clean-up's own */
			ost_drain_locked(up);
			if (up->uost_sd_closed)
				ost_kernel_bypass_forget(up->uost_sd);
			else if (ost_unset_kernel_locked(up) != 0)
				ost_debug("%s: cannot unset SO_OSTREL: %d\n",
				    "ost_cleanup", up->uost_sd);
			ost_destroy_locked(up);

			(void) pthread_mutex_lock(&ft->ft_lock);
		}
		(void) pthread_mutex_unlock(&ft->ft_lock);
	}
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

	argv = (char **)malloc((n + 2) * sizeof (char *));
	if (argv == NULL)
		return NULL;
	argv[0] = (char *)arg0;
	for (size_t i = 1; i <= n; i++)
		argv[i] = va_arg(ap, char *);
	argv[n + 1] = NULL;
	(void) va_arg(ap, char *);	/* the terminating null */
	if (envpp != NULL)
		*envpp = va_arg(ap, char *const *);
	return argv;
}
