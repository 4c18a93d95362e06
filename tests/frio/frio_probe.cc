/*
 * Checks of libfrio that need a program of their own, for frio_backend.sh:
 *
 *   openfail IFACE
 *	frio_open must fail; prints "status N: TEXT" and fails (exit 1) if
 *	the call left a descriptor open or a mapping behind.
 *   cloexec IFACE
 *	opens a handle and fails if a descriptor that the open made would
 *	survive exec (and so keep its socket and traffic alive in a child).
 *   nomem IFACE SRC DST DSTMAC DPORT
 *	takes the interface's transmit queues down to one while the handle
 *	is bound to queue 1 (FRIO_QUEUE=1), so the kernel sends nothing:
 *	frio_tx_vec must come to FRIO_STATUS_NOMEM and stay there, and
 *	succeed again once a second queue lets the ring drain.  Prints how
 *	many datagrams went out in all.
 *   badsum IFACE SRC6 DST6 DSTMAC DPORT
 *	sends one IPv6 datagram without asking for its checksum, which so
 *	stays the bare pseudo-header seed: a receiver that checks must drop it.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "frio.h"
#include "frio_udp.h"

namespace {

const char *
status_text(frio_status_t st)
{
	static char buf[80];

	return frio_status2str(st, buf, sizeof(buf));
}

int
count_fds()
{
	DIR *d = opendir("/proc/self/fd");
	int n = 0;

	if (d == nullptr)
		return -1;
	while (readdir(d) != nullptr)
		n++;
	closedir(d);
	return n;
}

int
count_maps()
{
	FILE *f = fopen("/proc/self/maps", "r");
	int n = 0, c;

	if (f == nullptr)
		return -1;
	while ((c = fgetc(f)) != EOF)
		n += c == '\n';
	fclose(f);
	return n;
}

int
cmd_openfail(char **argv)
{
	frio_handle_t h = nullptr;
	/* Load everything the open path pulls in before counting. */
	frio_status2str(FRIO_STATUS_OK, nullptr, 0);
	int fds = count_fds(), maps = count_maps();
	frio_status_t st = frio_open(argv[0], nullptr, &h);
	int fds2 = count_fds(), maps2 = count_maps();

	printf("status %d: %s\n", st, status_text(st));
	if (st == FRIO_STATUS_OK) {
		frio_close(h);
		return 1;
	}
	if (h != nullptr || fds2 != fds || maps2 > maps) {
		printf("leak: handle %p, descriptors %d -> %d, mappings "
		       "%d -> %d\n", (void *)h, fds, fds2, maps, maps2);
		return 1;
	}
	return 0;
}

int
cmd_cloexec(char **argv)
{
	constexpr int kMaxFd = 1024;
	static bool before[kMaxFd];
	frio_handle_t h;
	int bad = 0;

	for (int fd = 0; fd < kMaxFd; fd++)
		before[fd] = fcntl(fd, F_GETFD) >= 0;
	frio_status_t st = frio_open(argv[0], nullptr, &h);

	if (st != FRIO_STATUS_OK) {
		printf("frio_open: %s\n", status_text(st));
		return 3;
	}
	for (int fd = 0; fd < kMaxFd; fd++) {
		int fl = fcntl(fd, F_GETFD);

		if (!before[fd] && fl >= 0 && !(fl & FD_CLOEXEC)) {
			char path[64], target[256] = "";

			snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
			if (readlink(path, target, sizeof(target) - 1) < 0)
				strcpy(target, "?");
			printf("descriptor %d (%s) survives exec\n", fd, target);
			bad++;
		}
	}
	frio_close(h);
	return bad != 0;
}

/* Sets the interface's number of transmit channels (veth has them). */
bool
set_tx_channels(const char *ifname, unsigned n)
{
	struct ethtool_channels ch;
	struct ifreq ifr;
	int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	bool ok;

	memset(&ch, 0, sizeof(ch));
	memset(&ifr, 0, sizeof(ifr));
	snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "%s", ifname);
	ifr.ifr_data = reinterpret_cast<char *>(&ch);
	ch.cmd = ETHTOOL_GCHANNELS;
	ok = fd >= 0 && ioctl(fd, SIOCETHTOOL, &ifr) == 0;
	ch.cmd = ETHTOOL_SCHANNELS;
	ch.tx_count = n;
	ok = ok && ioctl(fd, SIOCETHTOOL, &ifr) == 0;
	if (!ok)
		perror("ETHTOOL_SCHANNELS");
	if (fd >= 0)
		close(fd);
	return ok;
}

struct tx_setup {
	frio_handle_t h;
	frio_udp::sender s;
};

int
open_sender(char **argv, tx_setup *t)
{
	frio_udp::addr src, dst;
	struct ether_addr dmac, smac;
	frio_status_t st;

	if (!frio_udp::parse_addr(argv[1], &src) ||
	    !frio_udp::parse_addr(argv[2], &dst) || src.v6 != dst.v6 ||
	    ether_aton_r(argv[3], &dmac) == nullptr) {
		fprintf(stderr, "bad address\n");
		return 1;
	}
	if ((st = frio_open(argv[0], nullptr, &t->h)) != FRIO_STATUS_OK) {
		fprintf(stderr, "frio_open: %s\n", status_text(st));
		return 3;
	}
	frio_get_mac_addr(t->h, &smac);
	frio_udp::sender_init(&t->s, smac, dmac, src, dst, 4000,
	    (uint16_t)atoi(argv[4]));
	return 0;
}

int
cmd_nomem(char **argv)
{
	tx_setup t;
	frio_status_t st = FRIO_STATUS_OK;
	int sent = 0, rc;
	const char msg[] = "nomem";

	if (!set_tx_channels(argv[0], 1))
		return 1;
	if ((rc = open_sender(argv, &t)) != 0)
		return rc;
	while (sent < 8192 &&
	    (st = frio_udp::send(t.h, &t.s, msg, sizeof(msg) - 1)) ==
	    FRIO_STATUS_OK)
		sent++;
	if (st != FRIO_STATUS_NOMEM) {
		printf("after %d datagrams: %s, not NOMEM\n", sent,
		    status_text(st));
		return 1;
	}
	for (int i = 0; i < 100; i++) {
		if ((st = frio_udp::send(t.h, &t.s, msg, sizeof(msg) - 1)) !=
		    FRIO_STATUS_NOMEM) {
			printf("NOMEM did not last: %s\n", status_text(st));
			return 1;
		}
	}
	printf("NOMEM after %d datagrams\n", sent);
	if (!set_tx_channels(argv[0], 2))
		return 1;
	struct timespec ts = {0, 1000000};
	int tries = 0;

	while ((st = frio_udp::send(t.h, &t.s, msg, sizeof(msg) - 1)) ==
	    FRIO_STATUS_NOMEM && tries++ < 2000)
		nanosleep(&ts, nullptr);
	if (st != FRIO_STATUS_OK) {
		printf("no room after the ring could drain: %s\n",
		    status_text(st));
		return 1;
	}
	sent++;
	printf("sent again after %d retries; %d datagrams in all\n", tries,
	    sent);
	frio_close(t.h);
	return 0;
}

int
cmd_badsum(char **argv)
{
	tx_setup t;
	int rc;
	const char msg[] = "badsum";
	struct iovec iov = {const_cast<char *>(msg), sizeof(msg) - 1};

	if ((rc = open_sender(argv, &t)) != 0)
		return rc;
	frio_udp::sender_set_len(&t.s, iov.iov_len);
	frio_status_t st = frio_tx_vec(t.h, nullptr, t.s.hdr, t.s.hlen, &iov,
	    1);
	frio_close(t.h);
	return st == FRIO_STATUS_OK ? 0 : 1;
}

} // namespace

int
main(int argc, char **argv)
{
	setvbuf(stdout, nullptr, _IOLBF, 0);
	if (argc == 3 && strcmp(argv[1], "openfail") == 0)
		return cmd_openfail(argv + 2);
	if (argc == 3 && strcmp(argv[1], "cloexec") == 0)
		return cmd_cloexec(argv + 2);
	if (argc == 7 && strcmp(argv[1], "nomem") == 0)
		return cmd_nomem(argv + 2);
	if (argc == 7 && strcmp(argv[1], "badsum") == 0)
		return cmd_badsum(argv + 2);
	fprintf(stderr, "usage: %s openfail|cloexec IFACE\n"
	    "       %s nomem|badsum IFACE SRC DST DSTMAC DPORT\n", argv[0],
	    argv[0]);
	return 2;
}
