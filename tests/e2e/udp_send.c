/*
 * udp_send CALL DST PORT COUNT: an ordinary UDP sender.  CALL is sendto,
 * send, write or writev (connected), sendmsg (writev and sendmsg in two
 * pieces) or sendmmsg (batches of 4).  Datagram i is (i * 97) % 1473 bytes (1453
 * for IPv6) of a pattern of i: every size the MTU allows.  Prints each
 * payload as hex, one a line.  Exit 1 on any failed call.
 */
#define _GNU_SOURCE
#include <netdb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

static unsigned char buf[4][1500];
static struct iovec iov[4];
static int v6;

/* Fills buf[b] with datagram i; returns its length. */
static size_t
payload(int i, int b)
{
	size_t len = (size_t)(i * 97) % (v6 ? 1453 : 1473);

	for (size_t k = 0; k < len; k++)
		buf[b][k] = (unsigned char)(i * 31 + k);
	for (size_t k = 0; k < len; k++)
		printf("%02x", buf[b][k]);
	printf("\n");
	iov[b] = (struct iovec){ buf[b], len };
	return len;
}

int
main(int argc, char **argv)
{
	struct addrinfo hints = { .ai_socktype = SOCK_DGRAM,
		.ai_flags = AI_NUMERICHOST },
			*ai;
	const char *call = argv[1];
	int fd, count, conn;

	if (argc < 5 || getaddrinfo(argv[2], argv[3], &hints, &ai) != 0) {
		fprintf(stderr, "usage: udp_send CALL DST PORT COUNT\n");
		return 2;
	}
	count = atoi(argv[4]);
	v6 = ai->ai_family == AF_INET6;
	conn = strcmp(call, "send") == 0 || strncmp(call, "write", 5) == 0;
	if ((fd = socket(ai->ai_family, SOCK_DGRAM, 0)) < 0 ||
	    (conn && connect(fd, ai->ai_addr, ai->ai_addrlen) != 0)) {
		perror("socket or connect");
		return 1;
	}
	for (int i = 0; i < count;) {
		struct msghdr msg = { .msg_name = ai->ai_addr,
			.msg_namelen = ai->ai_addrlen,
			.msg_iov = iov,
			.msg_iovlen = 2 };
		size_t len;
		ssize_t n = -1;

		if (strcmp(call, "sendmmsg") == 0) {
			struct mmsghdr vec[4] = { 0 };
			int batch = count - i < 4 ? count - i : 4;

			for (int b = 0; b < batch; b++) {
				payload(i + b, b);
				vec[b].msg_hdr = msg;
				vec[b].msg_hdr.msg_iov = &iov[b];
				vec[b].msg_hdr.msg_iovlen = 1;
			}
			if (sendmmsg(fd, vec, (unsigned)batch, 0) != batch) {
				perror("sendmmsg");
				return 1;
			}
			i += batch;
			usleep(200);
			continue;
		}
		len = payload(i++, 0);
		if (strcmp(call, "sendto") == 0)
			n = sendto(fd, buf[0], len, 0, ai->ai_addr,
			    ai->ai_addrlen);
		else if (strcmp(call, "send") == 0)
			n = send(fd, buf[0], len, 0);
		else if (strcmp(call, "write") == 0)
			n = write(fd, buf[0], len);
		else {
			/* Two pieces: the gather list reaches the wire whole. */
			size_t cut =
			    strcmp(call, "writev") == 0 ? len / 3 : len / 2;

			iov[0].iov_len = cut;
			iov[1] = (struct iovec){ buf[0] + cut, len - cut };
			if (strcmp(call, "writev") == 0)
				n = writev(fd, iov, 2);
			else if (strcmp(call, "sendmsg") == 0)
				n = sendmsg(fd, &msg, 0);
		}
		if (n != (ssize_t)len) {
			perror(call);
			return 1;
		}
		/* Pace: the receiver is an ordinary kernel socket. */
		usleep(50);
	}
	return 0;
}
