/*
 * frio_probe openfail IFACE: frio_open must fail; prints "status N: TEXT"
 * and exits 1 if the call succeeded or left a descriptor or mapping behind.
 *
 * frio_probe many IFACE ADDR PORT N SECONDS: opens N handles on IFACE, one
 * per port PORT..PORT+N-1 on ADDR, prints "ready N" and waits up to
 * SECONDS for one datagram on each.  Every frame must reach the handle of
 * its own port, once; prints a line per fault and "ok N" at the end.  Exits
 * 0 when all is well, 1 on a fault or timeout, 3 when an open or filter
 * set-up fails (after printing "open I: TEXT"), having closed every handle.
 */
#include <dirent.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <vector>

#include "frio.h"
#include "frio_udp.h"

namespace
{

/* Lines of /proc/self/maps, or entries of /proc/self/fd. */
int
count(bool fds)
{
	int n = 0, c;

	if (fds) {
		DIR *d = opendir("/proc/self/fd");
		while (d != nullptr && readdir(d) != nullptr)
			n++;
		if (d != nullptr)
			closedir(d);
		return n;
	}
	FILE *f = fopen("/proc/self/maps", "r");
	while (f != nullptr && (c = fgetc(f)) != EOF)
		n += c == '\n';
	if (f != nullptr)
		fclose(f);
	return n;
}

int
openfail(const char *ifname)
{
	frio_handle_t h = nullptr;
	char buf[80];

	/* Load what the open path pulls in before counting. */
	frio_status2str(FRIO_STATUS_OK, buf, sizeof(buf));
	int fds = count(true), maps = count(false);
	frio_status_t st = frio_open(ifname, nullptr, &h);
	int fds2 = count(true), maps2 = count(false);

	printf("status %d: %s\n", st, frio_status2str(st, buf, sizeof(buf)));
	if (st == FRIO_STATUS_OK) {
		frio_close(h);
		return 1;
	}
	if (h != nullptr || fds2 != fds || maps2 > maps) {
		printf("leak: handle %p, descriptors %d -> %d, mappings %d -> "
		       "%d\n",
		    (void *)h, fds, fds2, maps, maps2);
		return 1;
	}
	return 0;
}

double
now_s()
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (double)ts.tv_sec + ts.tv_nsec / 1e9;
}

/* Takes every frame waiting on handle i; false on a fault. */
bool
drain(frio_handle_t h, int i, int port, std::vector<int> &got)
{
	frio_rx_args_t ra;
	void *frame;
	bool ok = true;

	while (frio_rx_get(h, &ra, &frame) == FRIO_STATUS_OK) {
		frio_udp::datagram d;

		if (!frio_udp::parse(frame, ra.ur_pkt_len, &d)) {
			printf("handle %d: a frame that is not UDP\n", i);
			ok = false;
		} else if (d.dport != port + i) {
			printf("wrong: handle %d (port %d) got port %u\n", i,
			    port + i, d.dport);
			ok = false;
		} else if (++got[i] > 1) {
			printf("handle %d (port %d) got %d datagrams\n", i,
			    port + i, got[i]);
			ok = false;
		}
		if (frio_rx_put(h, frame) != FRIO_STATUS_OK) {
			printf("handle %d: frio_rx_put refused its frame\n", i);
			ok = false;
		}
	}
	return ok;
}

int
many(char **argv)
{
	const char *ifname = argv[0];
	int port = atoi(argv[2]), n = atoi(argv[3]);
	double deadline = now_s() + atof(argv[4]);
	std::vector<frio_handle_t> h;
	std::vector<int> got(static_cast<size_t>(n), 0);
	std::vector<struct pollfd> pfd;
	frio_udp::addr dst;
	char buf[128];
	int rc = 0, left = n;

	if (!frio_udp::parse_addr(argv[1], &dst) || n <= 0 || port <= 0 ||
	    port + n > 65536)
		return 2;
	for (int i = 0; i < n; i++) {
		struct ether_addr mac;
		frio_handle_t hi;
		frio_status_t st = frio_open(ifname, nullptr, &hi);

		if (st == FRIO_STATUS_OK) {
			h.push_back(hi);
			frio_get_mac_addr(hi, &mac);
			frio_filter_args_t f = frio_udp::filter(mac, dst,
			    static_cast<uint16_t>(port + i));
			st = frio_setup_rx(hi, &f);
		}
		if (st != FRIO_STATUS_OK) {
			printf("open %d: %s\n", i,
			    frio_status2str(st, buf, sizeof(buf)));
			rc = 3;
			break;
		}
	}
	if (rc == 0) {
		printf("ready %d\n", n);
		fflush(stdout);
	}
	for (frio_handle_t hi : h)
		pfd.push_back({ frio_get_fd(hi), POLLIN, 0 });
	/* After the last datagram, a little longer for strays. */
	while (rc == 0 && now_s() < deadline) {
		(void)poll(pfd.data(), pfd.size(), 20);
		for (int i = 0; i < n; i++) {
			int before = got[static_cast<size_t>(i)];

			if (!drain(h[static_cast<size_t>(i)], i, port, got))
				rc = 1;
			left -= before == 0 && got[static_cast<size_t>(i)] != 0;
		}
		if (left == 0 && deadline > now_s() + 0.3)
			deadline = now_s() + 0.3;
	}
	for (int i = 0; rc == 0 && i < n; i++) {
		if (got[static_cast<size_t>(i)] == 0) {
			printf("missing: handle %d (port %d) got nothing\n", i,
			    port + i);
			rc = 1;
		}
	}
	for (frio_handle_t hi : h)
		frio_close(hi);
	if (rc == 0)
		printf("ok %d\n", n);
	return rc;
}

} // namespace

int
main(int argc, char **argv)
{
	setvbuf(stdout, nullptr, _IOLBF, 0);
	if (argc == 3 && strcmp(argv[1], "openfail") == 0)
		return openfail(argv[2]);
	if (argc == 7 && strcmp(argv[1], "many") == 0)
		return many(argv + 2);
	fprintf(stderr,
	    "usage: %s openfail IFACE\n"
	    "       %s many IFACE ADDR PORT N SECONDS\n",
	    argv[0], argv[0]);
	return 2;
}
