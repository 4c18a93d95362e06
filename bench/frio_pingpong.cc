/*
 * frio_pingpong: UDP request/response round trips between two network
 * namespaces, through ordinary kernel sockets and then through raw libfrio
 * handles, in one run, with the same payload and count.  A client thread
 * in one namespace sends a request and spins until the echo comes back; a
 * server thread in the other spins and echoes.  Both busy-poll: the kernel
 * sockets with non-blocking recv(), the handles with frio_rx_get(), which
 * makes no system call.  Prints min, p50, p99, p99.9 and max per path.
 *
 *   frio_pingpong [-n COUNT] [-s SIZE] [-b BACKEND[,BACKEND...]]
 *	CLIENT_NS CLIENT_IF CLIENT_ADDR SERVER_NS SERVER_IF SERVER_ADDR
 *
 * The namespaces are names under /var/run/netns (ip netns add).  Needs
 * root.  The two threads are pinned to the first two CPUs.
 */
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "frio.h"
#include "frio_udp.h"

namespace
{

constexpr uint16_t kServerPort = 7000;
constexpr uint16_t kClientPort = 7001;
constexpr long kWarmup = 2000;
constexpr int64_t kTimeoutNs = 200 * 1000 * 1000;

struct side {
	const char *ns;
	const char *ifname;
	frio_udp::addr addr;
	const char *addr_str;
};

struct config {
	side client, server;
	long count;
	size_t size;
};

struct run {
	const config *cfg;
	const char *backend;           /* null: kernel sockets */
	std::atomic<int> server_state; /* 0 starting, 1 ready, -1 failed */
	std::atomic<bool> stop;
	/* Filled by the server before it is ready. */
	struct ether_addr server_mac;
	std::vector<int64_t> rtt;
	long lost;
	bool ok;
};

int64_t
now_ns()
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

bool
enter(const char *ns, int cpu)
{
	char path[256];
	cpu_set_t set;

	snprintf(path, sizeof(path), "/var/run/netns/%s", ns);
	int fd = open(path, O_RDONLY | O_CLOEXEC);

	if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
		fprintf(stderr,
		    "frio_pingpong: cannot enter namespace %s: %s\n", ns,
		    strerror(errno));
		if (fd >= 0)
			close(fd);
		return false;
	}
	close(fd);
	CPU_ZERO(&set);
	CPU_SET(cpu, &set);
	(void)pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
	return true;
}

/* A UDP socket bound to a:port; with drop_all, one that takes nothing, so
 * that the kernel neither queues nor answers the handles' datagrams. */
int
udp_socket(const frio_udp::addr &a, uint16_t port, bool drop_all)
{
	struct sockaddr_storage ss;
	socklen_t len;
	int fd =
	    socket(a.v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);

	memset(&ss, 0, sizeof(ss));
	if (a.v6) {
		struct sockaddr_in6 *s6 = reinterpret_cast<sockaddr_in6 *>(&ss);

		s6->sin6_family = AF_INET6;
		s6->sin6_addr = a.a;
		s6->sin6_port = htons(port);
		len = sizeof(*s6);
	} else {
		struct sockaddr_in *s4 = reinterpret_cast<sockaddr_in *>(&ss);

		s4->sin_family = AF_INET;
		memcpy(&s4->sin_addr, &a.a.s6_addr[12], 4);
		s4->sin_port = htons(port);
		len = sizeof(*s4);
	}
	if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0) {
		perror("frio_pingpong: bind");
		if (fd >= 0)
			close(fd);
		return -1;
	}
	if (drop_all) {
		struct sock_filter ret0 = BPF_STMT(BPF_RET | BPF_K, 0);
		struct sock_fprog prog = { 1, &ret0 };

		(void)setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &prog,
		    sizeof(prog));
	}
	return fd;
}

bool
connect_to(int fd, const frio_udp::addr &a, uint16_t port)
{
	struct sockaddr_storage ss;
	socklen_t len;

	memset(&ss, 0, sizeof(ss));
	if (a.v6) {
		struct sockaddr_in6 *s6 = reinterpret_cast<sockaddr_in6 *>(&ss);

		s6->sin6_family = AF_INET6;
		s6->sin6_addr = a.a;
		s6->sin6_port = htons(port);
		len = sizeof(*s6);
	} else {
		struct sockaddr_in *s4 = reinterpret_cast<sockaddr_in *>(&ss);

		s4->sin_family = AF_INET;
		memcpy(&s4->sin_addr, &a.a.s6_addr[12], 4);
		s4->sin_port = htons(port);
		len = sizeof(*s4);
	}
	return connect(fd, reinterpret_cast<sockaddr *>(&ss), len) == 0;
}

frio_handle_t
open_handle(const side &s, uint16_t port, struct ether_addr *mac)
{
	frio_handle_t h;
	frio_status_t st = frio_open(s.ifname, nullptr, &h);
	char buf[80];

	if (st != FRIO_STATUS_OK) {
		fprintf(stderr, "frio_pingpong: frio_open %s: %s\n", s.ifname,
		    frio_status2str(st, buf, sizeof(buf)));
		return nullptr;
	}
	frio_get_mac_addr(h, mac);
	frio_filter_args_t f = frio_udp::filter(*mac, s.addr, port);

	if ((st = frio_setup_rx(h, &f)) != FRIO_STATUS_OK) {
		fprintf(stderr, "frio_pingpong: frio_setup_rx: %s\n",
		    frio_status2str(st, buf, sizeof(buf)));
		frio_close(h);
		return nullptr;
	}
	return h;
}

/* The echo side.  The client's MAC comes in the request frame. */
void *
server_main(void *arg)
{
	run *r = static_cast<run *>(arg);
	const config *c = r->cfg;
	int fd = -1;
	frio_handle_t h = nullptr;

	if (!enter(c->server.ns, 1))
		goto fail;
	if (r->backend == nullptr) {
		char buf[2048];

		if ((fd = udp_socket(c->server.addr, kServerPort, false)) < 0)
			goto fail;
		r->server_state = 1;
		while (!r->stop.load(std::memory_order_relaxed)) {
			struct sockaddr_storage from;
			socklen_t flen = sizeof(from);
			ssize_t n = recvfrom(fd, buf, sizeof(buf), MSG_DONTWAIT,
			    reinterpret_cast<sockaddr *>(&from), &flen);

			if (n >= 0)
				(void)sendto(fd, buf, (size_t)n, 0,
				    reinterpret_cast<sockaddr *>(&from), flen);
		}
		close(fd);
		return nullptr;
	}
	{
		struct ether_addr mac;
		frio_udp::sender s;
		bool have_peer = false;

		if ((fd = udp_socket(c->server.addr, kServerPort, true)) < 0 ||
		    (h = open_handle(c->server, kServerPort, &mac)) == nullptr)
			goto fail;
		r->server_mac = mac;
		r->server_state = 1;
		while (!r->stop.load(std::memory_order_relaxed)) {
			frio_rx_args_t ra;
			void *frame;
			frio_udp::datagram d;

			if (frio_rx_get(h, &ra, &frame) != FRIO_STATUS_OK)
				continue;
			if (frio_udp::parse(frame, ra.ur_pkt_len, &d)) {
				if (!have_peer) {
					struct ether_addr cmac;

					memcpy(&cmac,
					    static_cast<uint8_t *>(frame) + 6,
					    6);
					frio_udp::sender_init(&s, mac, cmac,
					    c->server.addr, d.src, kServerPort,
					    d.sport);
					have_peer = true;
				}
				while (frio_udp::send(h, &s, d.payload,
					   d.len) == FRIO_STATUS_NOMEM &&
				    !r->stop.load(std::memory_order_relaxed))
					;
			}
			frio_rx_put(h, frame);
		}
		frio_close(h);
		close(fd);
		return nullptr;
	}
fail:
	if (fd >= 0)
		close(fd);
	r->server_state = -1;
	return nullptr;
}

/* One exchange's request: its sequence number, then filler. */
void
stamp(uint8_t *buf, size_t size, uint64_t seq)
{
	memcpy(buf, &seq, sizeof(seq) < size ? sizeof(seq) : size);
}

uint64_t
seq_of(const uint8_t *p, size_t len)
{
	uint64_t seq = ~0ULL;

	if (len >= sizeof(seq))
		memcpy(&seq, p, sizeof(seq));
	return seq;
}

void
record(run *r, long i, int64_t t0)
{
	if (i >= kWarmup)
		r->rtt.push_back(now_ns() - t0);
}

void
client_kernel(run *r)
{
	const config *c = r->cfg;
	std::vector<uint8_t> req(c->size), resp(2048);
	int fd = udp_socket(c->client.addr, kClientPort, false);

	if (fd < 0 || !connect_to(fd, c->server.addr, kServerPort))
		return;
	for (long i = 0; i < c->count + kWarmup; i++) {
		int64_t t0 = now_ns();

		stamp(req.data(), req.size(), (uint64_t)i);
		if (send(fd, req.data(), req.size(), 0) < 0) {
			perror("frio_pingpong: send");
			close(fd);
			return;
		}
		for (;;) {
			ssize_t n =
			    recv(fd, resp.data(), resp.size(), MSG_DONTWAIT);

			if (n >= 0 &&
			    seq_of(resp.data(), (size_t)n) == (uint64_t)i) {
				record(r, i, t0);
				break;
			}
			if (now_ns() - t0 > kTimeoutNs) {
				r->lost++;
				break;
			}
		}
	}
	close(fd);
	r->ok = true;
}

void
client_frio(run *r)
{
	const config *c = r->cfg;
	std::vector<uint8_t> req(c->size);
	struct ether_addr mac;
	frio_udp::sender s;
	int fd = udp_socket(c->client.addr, kClientPort, true);
	frio_handle_t h =
	    fd < 0 ? nullptr : open_handle(c->client, kClientPort, &mac);

	if (h == nullptr) {
		if (fd >= 0)
			close(fd);
		return;
	}
	frio_udp::sender_init(&s, mac, r->server_mac, c->client.addr,
	    c->server.addr, kClientPort, kServerPort);
	for (long i = 0; i < c->count + kWarmup; i++) {
		int64_t t0 = now_ns();

		stamp(req.data(), req.size(), (uint64_t)i);
		while (frio_udp::send(h, &s, req.data(), req.size()) ==
		    FRIO_STATUS_NOMEM)
			;
		for (;;) {
			frio_rx_args_t ra;
			void *frame;
			frio_udp::datagram d;

			if (frio_rx_get(h, &ra, &frame) == FRIO_STATUS_OK) {
				bool mine =
				    frio_udp::parse(frame, ra.ur_pkt_len, &d) &&
				    seq_of(d.payload, d.len) == (uint64_t)i;

				frio_rx_put(h, frame);
				if (mine) {
					record(r, i, t0);
					break;
				}
			}
			if (now_ns() - t0 > kTimeoutNs) {
				r->lost++;
				break;
			}
		}
	}
	frio_close(h);
	close(fd);
	r->ok = true;
}

void *
client_main(void *arg)
{
	run *r = static_cast<run *>(arg);

	if (!enter(r->cfg->client.ns, 0))
		return nullptr;
	if (r->backend == nullptr)
		client_kernel(r);
	else
		client_frio(r);
	return nullptr;
}

bool
measure(run *r)
{
	pthread_t st, ct;

	r->rtt.reserve((size_t)r->cfg->count);
	if (r->backend != nullptr)
		setenv("FRIO_BACKEND", r->backend, 1);
	if (pthread_create(&st, nullptr, server_main, r) != 0)
		return false;
	while (r->server_state.load() == 0)
		usleep(1000);
	if (r->server_state.load() < 0) {
		pthread_join(st, nullptr);
		return false;
	}
	pthread_create(&ct, nullptr, client_main, r);
	pthread_join(ct, nullptr);
	r->stop = true;
	pthread_join(st, nullptr);
	return r->ok;
}

void
print_row(const char *name, run *r)
{
	std::vector<int64_t> &v = r->rtt;

	if (!r->ok || v.empty()) {
		printf("%-16s failed\n", name);
		return;
	}
	std::sort(v.begin(), v.end());
	auto at = [&](double q) {
		size_t i = (size_t)(q * (double)(v.size() - 1) + 0.5);
		return (double)v[i] / 1000.0;
	};
	printf("%-16s %9zu %8.2f %8.2f %8.2f %8.2f %9.2f %6ld\n", name,
	    v.size(), at(0), at(0.5), at(0.99), at(0.999), at(1.0), r->lost);
}

[[noreturn]] void
usage()
{
	fprintf(stderr,
	    "usage: frio_pingpong [-n COUNT] [-s SIZE] [-b BACKEND[,...]] "
	    "CLIENT_NS CLIENT_IF CLIENT_ADDR SERVER_NS SERVER_IF "
	    "SERVER_ADDR\n");
	exit(1);
}

} // namespace

int
main(int argc, char **argv)
{
	config cfg;
	char backends[64] = "xdp";
	int c;

	cfg.count = 100000;
	cfg.size = 32;
	while ((c = getopt(argc, argv, "n:s:b:")) != -1) {
		switch (c) {
		case 'n':
			cfg.count = atol(optarg);
			break;
		case 's':
			cfg.size = (size_t)atol(optarg);
			break;
		case 'b':
			snprintf(backends, sizeof(backends), "%s", optarg);
			break;
		default:
			usage();
		}
	}
	if (argc - optind != 6 || cfg.count <= 0 || cfg.size < 8 ||
	    cfg.size > 1400)
		usage();
	side *sides[2] = { &cfg.client, &cfg.server };

	for (int i = 0; i < 2; i++) {
		char **a = argv + optind + 3 * i;

		sides[i]->ns = a[0];
		sides[i]->ifname = a[1];
		sides[i]->addr_str = a[2];
		if (!frio_udp::parse_addr(a[2], &sides[i]->addr))
			usage();
	}
	printf("UDP round trip, %zu-byte payload, %ld exchanges after %ld "
	       "warm-up, both sides busy-polling\n",
	    cfg.size, cfg.count, kWarmup);
	printf("%s/%s %s <-> %s/%s %s; times in microseconds\n\n",
	    cfg.client.ns, cfg.client.ifname, cfg.client.addr_str,
	    cfg.server.ns, cfg.server.ifname, cfg.server.addr_str);
	printf("%-16s %9s %8s %8s %8s %8s %9s %6s\n", "path", "samples", "min",
	    "p50", "p99", "p99.9", "max", "lost");

	int failed = 0;
	run kr;

	kr.cfg = &cfg;
	kr.backend = nullptr;
	kr.server_state = 0;
	kr.stop = false;
	kr.lost = 0;
	kr.ok = false;
	failed += !measure(&kr);
	print_row("kernel sockets", &kr);
	for (char *b = strtok(backends, ","); b != nullptr;
	     b = strtok(nullptr, ",")) {
		run fr;
		char name[32];

		fr.cfg = &cfg;
		fr.backend = b;
		fr.server_state = 0;
		fr.stop = false;
		fr.lost = 0;
		fr.ok = false;
		failed += !measure(&fr);
		snprintf(name, sizeof(name), "frio %s", b);
		print_row(name, &fr);
	}
	return failed != 0;
}
