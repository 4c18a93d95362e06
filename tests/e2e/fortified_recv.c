/*
 * A receiver built as distributions build packages (-O2
 * -D_FORTIFY_SOURCE=2), so that its poll, recv, recvfrom and read are
 * glibc's checked forms:
 *
 *   fortified_recv ADDR PORT COUNT
 *
 * Waits in poll, then reads each datagram with recv, recvfrom, read and
 * readv in turn, and prints its payload as hex, one per line.  Exit 1 when
 * nothing came for 3 s.
 */
#include <netdb.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

int
main(int argc, char **argv)
{
	struct addrinfo hints = { .ai_socktype = SOCK_DGRAM,
	    .ai_flags = AI_NUMERICHOST | AI_PASSIVE }, *ai;
	unsigned char buf[2048];
	struct iovec iov[2] = { { buf, 7 }, { buf + 7, sizeof(buf) - 7 } };
	struct sockaddr_storage from;
	socklen_t fromlen = sizeof(from);
	int fd;

	if (argc < 4 || getaddrinfo(argv[1], argv[2], &hints, &ai) != 0)
		return 2;
	fd = socket(ai->ai_family, SOCK_DGRAM, 0);
	if (fd < 0 || bind(fd, ai->ai_addr, ai->ai_addrlen) != 0)
		return perror("bind"), 1;
	fprintf(stderr, "ready\n");
	/* Lengths the compiler cannot prove in bounds: the checked forms. */
	size_t cap = strtoul(getenv("BUFLEN") ? getenv("BUFLEN") : "2048", NULL, 10);
	nfds_t nfds = strtoul("1", NULL, 10);

	for (int i = 0; i < atoi(argv[3]); i++) {
		struct pollfd pfd = { fd, POLLIN, 0 };
		ssize_t n;

		if (poll(&pfd, nfds, 3000) != 1)
			return 1;
		n = i % 4 == 0 ? recv(fd, buf, cap, 0) :
		    i % 4 == 1 ? recvfrom(fd, buf, cap, 0, (struct sockaddr *)&from, &fromlen) :
		    i % 4 == 2 ? read(fd, buf, cap) : readv(fd, iov, 2);
		if (n < 0)
			return perror("receive"), 1;
		for (ssize_t k = 0; k < n; k++)
			printf("%02x", buf[k]);
		printf("\n");
	}
	return 0;
}
