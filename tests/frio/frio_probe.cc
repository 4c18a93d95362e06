/*
 * frio_probe openfail IFACE: frio_open must fail; prints "status N: TEXT"
 * and exits 1 if the call succeeded or left a descriptor or mapping behind.
 *
 * frio_probe open IFACE ADDR PORT N: opens N handles on IFACE, one per
 * port PORT..PORT+N-1 on ADDR; prints "ok N" and exits 0, or at the first
 * open or filter set-up that fails prints "open I: TEXT" and exits 3,
 * having closed every handle.
 */
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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

/* Opens n handles, one per port from port; 3 at the first that fails. */
int
open_many(char **argv)
{
	const char *ifname = argv[0];
	int port = atoi(argv[2]), n = atoi(argv[3]), rc = 0;
	std::vector<frio_handle_t> h;
	frio_udp::addr dst;
	char buf[128];

	if (!frio_udp::parse_addr(argv[1], &dst) || n <= 0 || port <= 0 ||
	    port + n > 65536)
		return 2;
	for (int i = 0; i < n && rc == 0; i++) {
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
	if (argc == 6 && strcmp(argv[1], "open") == 0)
		return open_many(argv + 2);
	fprintf(stderr,
	    "usage: %s openfail IFACE\n"
	    "       %s open IFACE ADDR PORT N\n",
	    argv[0], argv[0]);
	return 2;
}
