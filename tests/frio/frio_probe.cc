/*
 * frio_probe open IFACE ADDR PORT N: opens N handles on IFACE, one per port
 * PORT..PORT+N-1 on ADDR; prints "ok N" and exits 0, or at the first open
 * or filter set-up that fails prints "open I: TEXT" and exits 3, having
 * closed every handle.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "frio.h"
#include "frio_udp.h"

int
main(int argc, char **argv)
{
	frio_udp::addr dst;

	if (argc != 6 || strcmp(argv[1], "open") != 0 ||
	    !frio_udp::parse_addr(argv[3], &dst)) {
		fprintf(stderr, "usage: %s open IFACE ADDR PORT N\n", argv[0]);
		return 2;
	}
	int port = atoi(argv[4]), n = atoi(argv[5]), rc = 0;
	std::vector<frio_handle_t> h;
	char buf[128];

	if (n <= 0 || port <= 0 || port + n > 65536)
		return 2;
	for (int i = 0; i < n && rc == 0; i++) {
		struct ether_addr mac;
		frio_handle_t hi;
		frio_status_t st = frio_open(argv[2], nullptr, &hi);

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
