/*
 * The kernel socket's side of bypass mode: a socket filter that accepts
 * nothing keeps the datagrams that the frame-access handle serves from
 * piling up in the kernel socket, and a small table remembers which sockets
 * carry our filter.  Switching off removes the filter only from a socket we
 * armed, so a filter that the application attached itself is never
 * touched, and a descriptor number reused by another socket is recognised
 * by its inode.
 */
#include <errno.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "os/kernel_bypass.h"
#include "os/libc.h"

typedef struct ost_tie {
	struct ost_tie *ot_next;
	int ot_sd;
	ino_t ot_ino;
	so_ost_opt_t ot_opt;
} ost_tie_t;

static pthread_mutex_t ost_tie_lock = PTHREAD_MUTEX_INITIALIZER;
static ost_tie_t *ost_ties; /* protected by ost_tie_lock */

static ost_tie_t **
ost_tie_find(int sd)
{
	ost_tie_t **tpp;

	for (tpp = &ost_ties; *tpp != NULL; tpp = &(*tpp)->ot_next) {
		if ((*tpp)->ot_sd == sd)
			return tpp;
	}
	return NULL;
}

static int
sockopt_int(int sd, int name, int *val)
{
	socklen_t len = sizeof(*val);

	return real_getsockopt(sd, SOL_SOCKET, name, val, &len);
}

/* The errors a kernel would give for the option on an unsuitable socket. */
static int
ost_check_bound_udp(int sd)
{
	struct sockaddr_storage ss;
	socklen_t len = sizeof(ss);
	int type, proto, domain;

	if (sockopt_int(sd, SO_TYPE, &type) != 0 ||
	    sockopt_int(sd, SO_PROTOCOL, &proto) != 0 ||
	    sockopt_int(sd, SO_DOMAIN, &domain) != 0)
		return -1; /* EBADF, ENOTSOCK */
	if (type != SOCK_DGRAM || proto != IPPROTO_UDP ||
	    (domain != AF_INET && domain != AF_INET6)) {
		errno = ENOPROTOOPT;
		return -1;
	}
	if (getsockname(sd, (struct sockaddr *)&ss, &len) != 0)
		return -1;
	if ((ss.ss_family == AF_INET &&
		((struct sockaddr_in *)&ss)->sin_port == 0) ||
	    (ss.ss_family == AF_INET6 &&
		((struct sockaddr_in6 *)&ss)->sin6_port == 0)) {
		errno = EINVAL;
		return -1;
	}
	return 0;
}

static int
ost_bypass_on(int sd, const so_ost_opt_t *opt)
{
	static struct sock_filter drop_all[] = {
		BPF_STMT(BPF_RET | BPF_K, 0),
	};
	static const struct sock_fprog prog = { 1, drop_all };
	struct stat st;
	ost_tie_t *tie, **tpp;

	if (ost_check_bound_udp(sd) != 0 || fstat(sd, &st) != 0)
		return -1;
	tie = (ost_tie_t *)malloc(sizeof(*tie));
	if (tie == NULL) {
		errno = ENOMEM;
		return -1;
	}
	if (real_setsockopt(sd, SOL_SOCKET, SO_ATTACH_FILTER, &prog,
		sizeof(prog)) != 0) {
		free(tie);
		return -1;
	}
	tie->ot_sd = sd;
	tie->ot_ino = st.st_ino;
	tie->ot_opt = *opt;
	(void)pthread_mutex_lock(&ost_tie_lock);
	if ((tpp = ost_tie_find(sd)) != NULL) { /* re-armed: replace */
		ost_tie_t *old = *tpp;

		*tpp = old->ot_next;
		free(old);
	}
	tie->ot_next = ost_ties;
	ost_ties = tie;
	(void)pthread_mutex_unlock(&ost_tie_lock);
	return 0;
}

static ost_tie_t *
ost_tie_take(int sd)
{
	ost_tie_t **tpp, *tie = NULL;

	(void)pthread_mutex_lock(&ost_tie_lock);
	if ((tpp = ost_tie_find(sd)) != NULL) {
		tie = *tpp;
		*tpp = tie->ot_next;
	}
	(void)pthread_mutex_unlock(&ost_tie_lock);
	return tie;
}

static int
ost_bypass_off(int sd)
{
	ost_tie_t *tie = ost_tie_take(sd);
	struct stat st;
	int ret = 0;

	/* Never armed (or already off): a kernel would accept this too. */
	if (tie == NULL)
		return 0;
	if (fstat(sd, &st) != 0) {
		ret = -1;
	} else if (st.st_ino == tie->ot_ino) {
		int unused = 0; /* the kernel wants an int, and ignores it */

		ret = real_setsockopt(sd, SOL_SOCKET, SO_DETACH_FILTER, &unused,
		    sizeof(unused));
		if (ret != 0 && errno == ENOENT)
			ret = 0; /* the application removed it already */
	}
	free(tie);
	return ret;
}

int
ost_kernel_bypass_set(int sd, const so_ost_opt_t *opt)
{
	return opt->ost_onoff ? ost_bypass_on(sd, opt) : ost_bypass_off(sd);
}

/* The socket is closed: forget it without touching the descriptor. */
void
ost_kernel_bypass_forget(int sd)
{
	free(ost_tie_take(sd));
}

bool
ost_kernel_bypass_get(int sd, so_ost_opt_t *opt)
{
	ost_tie_t **tpp;
	bool found = false;

	(void)pthread_mutex_lock(&ost_tie_lock);
	if ((tpp = ost_tie_find(sd)) != NULL) {
		*opt = (*tpp)->ot_opt;
		found = true;
	}
	(void)pthread_mutex_unlock(&ost_tie_lock);
	return found;
}
