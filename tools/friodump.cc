/*
 * friodump: opens libfrio handles on an interface and shows the datagrams
 * they receive, or sends datagrams through one.  For checking a set-up
 * without the preload library: which backend opens, whether frames for an
 * address and port reach user space, whether frames sent from user space
 * reach a peer.
 *
 *   friodump [-H] [-n COUNT] [-t SECONDS] IFACE ADDR[,ADDR...] PORT[,PORT...]
 *   friodump -s [-n COUNT] [-l LEN] [-i USEC] IFACE SRC DST DSTMAC SPORT DPORT
 *
 * The backend is the library's: FRIO_BACKEND=xdp, packet or mem; unset,
 * xdp when libfrio was built with it, else packet.
 * Exit status: 0 done, 1 usage or failure, 2 timeout, 3 frio_open or
 * frio_setup_rx failed.
 */
#include <errno.h>
#include <netinet/ether.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "frio.h"
#include "frio_udp.h"

namespace
{

constexpr int kMaxHandles = 16;
constexpr int kMaxList = 8;

volatile sig_atomic_t stop;

void
on_signal(int)
{
	stop = 1;
}

void
usage()
{
	fprintf(stderr,
	    "usage: friodump [-H] [-n COUNT] [-t SECONDS] IFACE "
	    "ADDR[,ADDR...] PORT[,PORT...]\n"
	    "         shows the datagrams that handles filtered on "
	    "ADDR and PORT receive\n"
	    "         -H: one handle per address and port, not one in all\n"
	    "         -n: exit after COUNT datagrams on each handle\n"
	    "         -t: give up (exit 2) after SECONDS\n"
	    "       friodump -s [-n COUNT] [-l LEN] [-i USEC] IFACE SRC DST "
	    "DSTMAC SPORT DPORT\n"
	    "         sends COUNT (1) datagrams \"tx-N ...\" of LEN bytes, "
	    "USEC apart\n"
	    "backend: FRIO_BACKEND=xdp|packet|mem; FRIO_DEBUG=1 explains "
	    "failures\n");
	exit(1);
}

double
now_s()
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (double)ts.tv_sec + ts.tv_nsec / 1e9;
}

const char *
status_text(frio_status_t st)
{
	static char buf[80];

	return frio_status2str(st, buf, sizeof(buf));
}

/* Splits a comma list in place; returns the number of items. */
int
split(char *s, char **items)
{
	int n = 0;

	for (char *p = strtok(s, ","); p != nullptr && n < kMaxList;
	     p = strtok(nullptr, ","))
		items[n++] = p;
	return n;
}

/* The payload of datagram n: "tx-N " and then letters, len bytes. */
size_t
make_payload(uint8_t *buf, size_t len, int n)
{
	char head[24];
	int hl = snprintf(head, sizeof(head), "tx-%d ", n);

	for (size_t i = 0; i < len; i++)
		buf[i] =
		    i < (size_t)hl ? (uint8_t)head[i] : (uint8_t)('a' + i % 26);
	return len;
}

void
print_datagram(int hi, const frio_udp::datagram &d, uint32_t flen)
{
	char s[INET6_ADDRSTRLEN], t[INET6_ADDRSTRLEN];
	size_t show = d.len < 48 ? d.len : 48;
	bool text = true;

	for (size_t i = 0; i < show; i++)
		text = text && d.payload[i] >= 0x20 && d.payload[i] < 0x7f;
	printf("h%d %u bytes %s%s%s:%u -> %s%s%s:%u len %zu ", hi, flen,
	    d.src.v6 ? "[" : "", frio_udp::addr_str(d.src, s, sizeof(s)),
	    d.src.v6 ? "]" : "", d.sport, d.dst.v6 ? "[" : "",
	    frio_udp::addr_str(d.dst, t, sizeof(t)), d.dst.v6 ? "]" : "",
	    d.dport, d.len);
	if (text) {
		printf("\"%.*s\"%s\n", (int)show, (const char *)d.payload,
		    show < d.len ? "..." : "");
	} else {
		for (size_t i = 0; i < show; i++)
			printf("%02x", d.payload[i]);
		printf("%s\n", show < d.len ? "..." : "");
	}
}

int
dump(int argc, char **argv, bool per_handle, long count, double timeout)
{
	char *addrs[kMaxList], *ports[kMaxList];
	frio_udp::addr dst[kMaxList];
	frio_handle_t h[kMaxHandles];
	long got[kMaxHandles] = {};
	int naddr, nport, nh = 0;

	if (argc != 3)
		usage();
	naddr = split(argv[1], addrs);
	nport = split(argv[2], ports);
	for (int i = 0; i < naddr; i++) {
		if (!frio_udp::parse_addr(addrs[i], &dst[i])) {
			fprintf(stderr, "friodump: bad address %s\n", addrs[i]);
			return 1;
		}
	}
	for (int a = 0; a < naddr; a++) {
		for (int p = 0; p < nport; p++) {
			frio_status_t st;
			struct ether_addr mac;

			if (nh == 0 || (per_handle && nh < kMaxHandles)) {
				st = frio_open(argv[0], nullptr, &h[nh]);
				if (st != FRIO_STATUS_OK) {
					fprintf(stderr,
					    "friodump: frio_open "
					    "%s: %s\n",
					    argv[0], status_text(st));
					return 3;
				}
				nh++;
			}
			frio_get_mac_addr(h[nh - 1], &mac);
			frio_filter_args_t f = frio_udp::filter(mac, dst[a],
			    (uint16_t)atoi(ports[p]));
			st = frio_setup_rx(h[nh - 1], &f);
			if (st != FRIO_STATUS_OK) {
				fprintf(stderr,
				    "friodump: frio_setup_rx %s "
				    "port %s: %s\n",
				    addrs[a], ports[p], status_text(st));
				return 3;
			}
		}
	}
	const char *be = getenv("FRIO_BACKEND");

	printf("listening on %s with %d handle%s (backend %s)\n", argv[0], nh,
	    nh == 1 ? "" : "s", be != nullptr && *be ? be : "the default");
	fflush(stdout);

	double deadline = timeout > 0 ? now_s() + timeout : 0;
	int rc = 0;

	while (!stop) {
		struct pollfd pfd[kMaxHandles];
		bool done = count > 0;

		for (int i = 0; i < nh; i++)
			done = done && got[i] >= count;
		if (done)
			break;
		int wait_ms = 200;

		if (deadline != 0) {
			double left = deadline - now_s();

			if (left <= 0) {
				rc = 2;
				break;
			}
			if (left * 1000 < wait_ms)
				wait_ms = (int)(left * 1000) + 1;
		}
		for (int i = 0; i < nh; i++) {
			pfd[i].fd = frio_get_fd(h[i]);
			pfd[i].events = POLLIN;
		}
		/* The descriptor is a hint; the rings are read either way. */
		(void)poll(pfd, (nfds_t)nh, wait_ms);
		for (int i = 0; i < nh; i++) {
			frio_rx_args_t ra;
			void *frame;

			while (
			    frio_rx_get(h[i], &ra, &frame) == FRIO_STATUS_OK) {
				frio_udp::datagram d;

				if (frio_udp::parse(frame, ra.ur_pkt_len, &d))
					print_datagram(i, d, ra.ur_pkt_len);
				else
					printf("h%d %u bytes, not UDP\n", i,
					    ra.ur_pkt_len);
				got[i]++;
				frio_rx_put(h[i], frame);
			}
		}
		fflush(stdout);
	}
	for (int i = 0; i < nh; i++) {
		if (rc == 2)
			printf("timeout: h%d got %ld\n", i, got[i]);
		frio_close(h[i]);
	}
	return rc;
}

int
send_mode(int argc, char **argv, long count, long len, long gap_us)
{
	frio_udp::addr src, dst;
	struct ether_addr dmac, smac;
	frio_udp::sender s;
	frio_handle_t h;
	frio_status_t st;
	uint8_t payload[1500];
	long nomem = 0;

	if (argc != 6 || len > (long)sizeof(payload))
		usage();
	if (!frio_udp::parse_addr(argv[1], &src) ||
	    !frio_udp::parse_addr(argv[2], &dst) || src.v6 != dst.v6 ||
	    ether_aton_r(argv[3], &dmac) == nullptr) {
		fprintf(stderr, "friodump: bad address\n");
		return 1;
	}
	if ((st = frio_open(argv[0], nullptr, &h)) != FRIO_STATUS_OK) {
		fprintf(stderr, "friodump: frio_open %s: %s\n", argv[0],
		    status_text(st));
		return 3;
	}
	frio_get_mac_addr(h, &smac);
	frio_udp::sender_init(&s, smac, dmac, src, dst, (uint16_t)atoi(argv[4]),
	    (uint16_t)atoi(argv[5]));
	for (long i = 0; i < count && !stop; i++) {
		size_t n = len >= 0 ?
		    make_payload(payload, (size_t)len, (int)i) :
		    (size_t)snprintf((char *)payload, sizeof(payload), "tx-%ld",
			i);
		double deadline = now_s() + 2;

		while ((st = frio_udp::send(h, &s, payload, n)) ==
			FRIO_STATUS_NOMEM &&
		    now_s() < deadline) {
			nomem++;
			usleep(50);
		}
		if (st != FRIO_STATUS_OK) {
			fprintf(stderr, "friodump: frio_tx_vec: %s\n",
			    status_text(st));
			frio_close(h);
			return 1;
		}
		if (gap_us > 0)
			usleep((useconds_t)gap_us);
	}
	printf("sent %ld datagrams (%ld retries for transmit room)\n", count,
	    nomem);
	frio_close(h);
	return 0;
}

} // namespace

int
main(int argc, char **argv)
{
	bool sending = false, per_handle = false;
	long count = -1, len = -1, gap_us = 0;
	double timeout = 0;
	int c;

	while ((c = getopt(argc, argv, "sHn:t:l:i:h")) != -1) {
		switch (c) {
		case 's':
			sending = true;
			break;
		case 'H':
			per_handle = true;
			break;
		case 'n':
			count = atol(optarg);
			break;
		case 't':
			timeout = atof(optarg);
			break;
		case 'l':
			len = atol(optarg);
			break;
		case 'i':
			gap_us = atol(optarg);
			break;
		default:
			usage();
		}
	}
	signal(SIGINT, on_signal);
	signal(SIGTERM, on_signal);
	setvbuf(stdout, nullptr, _IOLBF, 0);
	if (sending)
		return send_mode(argc - optind, argv + optind,
		    count < 0 ? 1 : count, len, gap_us);
	return dump(argc - optind, argv + optind, per_handle, count, timeout);
}
