/*
 * A plain UDP soak pair, as an application would write it:
 *
 *   soak send DST PORT SECONDS [COUNT]   soak recv ADDR PORT
 *
 * The sender keeps at most WINDOW datagrams unacknowledged (the receiver
 * acknowledges every 16th with its count) and sends for SECONDS, or COUNT
 * datagrams when given.  Datagram i carries i and a pattern of it, its size
 * cycling through SIZES, across the 1500-byte MTU.  Then the sender asks
 * for the receiver's count and checksum (a sum of each payload's FNV-1a,
 * whatever the order) and both print "COUNT SUM".  The receiver checks every
 * byte and every number seen once.  Exit 1 on loss, a stall or a bad byte.
 */
#include <arpa/inet.h>
#include <netdb.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#define WINDOW 64
typedef unsigned long long ull;
static const size_t SIZES[] = { 32, 512, 1400, 1472, 1473, 2500, 4000, 64 };
static unsigned char buf[65536], want[65536];

static size_t
payload(uint64_t seq, unsigned char *p)
{
	size_t len = SIZES[seq % 8];

	memcpy(p, &seq, 8);
	for (size_t k = 8; k < len; k++)
		p[k] = (unsigned char)(seq * 13 + k);
	return len;
}

static uint64_t
fnv(const unsigned char *p, size_t n)
{
	uint64_t h = 14695981039346656037ull;

	while (n--)
		h = (h ^ *p++) * 1099511628211ull;
	return h;
}

int
main(int argc, char **argv)
{
	struct addrinfo hints = { .ai_socktype = SOCK_DGRAM, .ai_flags = AI_NUMERICHOST }, *ai;
	struct timeval tv = { 1, 0 };
	uint64_t seq = 0, acked = 0, sum = 0, count = 0, msg[3];
	int fd, sender = argc > 4 && strcmp(argv[1], "send") == 0;

	if ((!sender && argc != 4) || getaddrinfo(argv[2], argv[3], &hints, &ai) != 0)
		return fprintf(stderr, "usage: soak send DST PORT SECONDS [COUNT] | recv ADDR PORT\n"), 2;
	fd = socket(ai->ai_family, SOCK_DGRAM, 0);
	if (sender) {
		uint64_t limit = argc > 5 ? strtoull(argv[5], NULL, 10) : UINT64_MAX;
		time_t end = time(NULL) + atoi(argv[4]);
		int tries = 0;

		setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
		if (connect(fd, ai->ai_addr, ai->ai_addrlen) != 0)
			return perror("connect"), 1;
		while (seq < limit && (argc > 5 || time(NULL) < end)) {
			if (seq - acked < WINDOW) {
				size_t len = payload(seq, buf);

				if (send(fd, buf, len, 0) != (ssize_t)len)
					return perror("send"), 1;
				sum += fnv(buf, len), seq++;
			}
			int flags = seq - acked < WINDOW ? MSG_DONTWAIT : 0;
			if (recv(fd, msg, sizeof(msg), flags) == 8)
				acked = msg[0] > acked ? msg[0] : acked;
			else if (flags == 0)
				return fprintf(stderr, "stalled: %llu sent, %llu acknowledged\n",
				    (ull)seq, (ull)acked), 1;
		}
		/* Acknowledgements still on their way are read past; only a
		 * second without an answer counts as a try. */
		for (ssize_t n = -1;;) {
			if (n < 0) {
				if (++tries > 10)
					return fprintf(stderr, "no final count\n"), 1;
				memcpy(msg, "SOAKFIN!", 8), msg[1] = seq;
				send(fd, msg, 16, 0);
			}
			n = recv(fd, msg, sizeof(msg), 0);
			if (n == 24 && memcmp(msg, "SOAKDONE", 8) == 0)
				break;
		}
		printf("%llu %016llx\n", (ull)seq, (ull)sum);
		return msg[1] != seq || msg[2] != sum;
	}
	struct sockaddr_storage peer;
	socklen_t plen = sizeof(peer);
	unsigned char *seen = calloc(1 << 24, 1);
	int rcvbuf = 1 << 22;

	tv.tv_sec = 5;
	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
	setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
	if (bind(fd, ai->ai_addr, ai->ai_addrlen) != 0)
		return perror("bind"), 1;
	fprintf(stderr, "ready\n");
	for (;;) {
		ssize_t n = recvfrom(fd, buf, sizeof(buf), 0, (struct sockaddr *)&peer, &plen);

		if (n < 0) {
			uint64_t gap = 0;

			while (gap < (1u << 27) && (seen[gap / 8] & 1 << gap % 8))
				gap++;
			return fprintf(stderr, "nothing for 5 s after %llu, first missing %llu\n",
			    (ull)count, (ull)gap), 1;
		}
		if (n == 16 && memcmp(buf, "SOAKFIN!", 8) == 0) {
			memcpy(&seq, buf + 8, 8);
			if (count != seq)
				continue;	/* the rest are on their way, or lost */
			memcpy(msg, "SOAKDONE", 8), msg[1] = count, msg[2] = sum;
			sendto(fd, msg, 24, 0, (struct sockaddr *)&peer, plen);
			printf("%llu %016llx\n", (ull)count, (ull)sum);
			return 0;
		}
		memcpy(&seq, buf, 8);
		if (n < 8 || seq >= (1u << 27) || (seen[seq / 8] & 1 << seq % 8) ||
		    (size_t)n != payload(seq, want) || memcmp(buf, want, (size_t)n) != 0)
			return fprintf(stderr, "bad datagram, %zd bytes, after %llu\n", n, (ull)count), 1;
		seen[seq / 8] |= 1 << seq % 8;
		sum += fnv(buf, (size_t)n);
		if (++count % 16 == 0)
			sendto(fd, &count, 8, 0, (struct sockaddr *)&peer, plen);
	}
}
