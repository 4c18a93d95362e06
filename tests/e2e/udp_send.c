/*
 * An ordinary UDP sender, as an application would write it, for the
 * preload tests:
 *
 *   udp_send CALL DST PORT COUNT [BIND_ADDR]
 *
 * CALL is sendto, send (after connect), write or writev (after connect,
 * two pieces), sendmsg or
 * sendmmsg (batches of 4).  Datagram i carries a payload of length
 * (i * 97) % 1473 (1453 for IPv6) filled with a pattern of i, so that every
 * size from empty to the largest the MTU allows is tried.  Prints each
 * payload it sent as hex, one per line, for the test to compare with what
 * the receiver got.  Exit 1 on any failed call.
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <netdb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

static size_t
payload(int i, int v6, unsigned char *buf)
{
	size_t len = (size_t)(i * 97) % (v6 ? 1453 : 1473);

	for (size_t k = 0; k < len; k++)
		buf[k] = (unsigned char)(i * 31 + k);
	return len;
}

static void
print_hex(const unsigned char *p, size_t n)
{
	for (size_t k = 0; k < n; k++)
		printf("%02x", p[k]);
	printf("\n");
}

int
main(int argc, char **argv)
{
	struct addrinfo hints = { 0 }, *ai;
	unsigned char buf[4][1500];
	const char *call;
	int fd, count, v6;

	if (argc < 5) {
		fprintf(stderr, "usage: udp_send CALL DST PORT COUNT [BIND]\n");
		return 2;
	}
	call = argv[1];
	count = atoi(argv[4]);
	hints.ai_socktype = SOCK_DGRAM;
	hints.ai_flags = AI_NUMERICHOST;
	if (getaddrinfo(argv[2], argv[3], &hints, &ai) != 0) {
		fprintf(stderr, "bad address %s\n", argv[2]);
		return 2;
	}
	v6 = ai->ai_family == AF_INET6;
	fd = socket(ai->ai_family, SOCK_DGRAM, 0);
	if (fd < 0) {
		perror("socket");
		return 1;
	}
	if (argc > 5) {
		struct addrinfo *bi;

		hints.ai_flags |= AI_PASSIVE;
		if (getaddrinfo(argv[5], "0", &hints, &bi) != 0 ||
		    bind(fd, bi->ai_addr, bi->ai_addrlen) != 0) {
			perror("bind");
			return 1;
		}
		freeaddrinfo(bi);
	}
	if ((strcmp(call, "send") == 0 || strncmp(call, "write", 5) == 0) &&
	    connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
		perror("connect");
		return 1;
	}
	for (int i = 0; i < count;) {
		ssize_t n = -1;
		size_t len = payload(i, v6, buf[0]);

		if (strcmp(call, "sendmmsg") == 0) {
			struct mmsghdr vec[4];
			struct iovec iov[4];
			int batch = count - i < 4 ? count - i : 4;

			memset(vec, 0, sizeof (vec));
			for (int b = 0; b < batch; b++) {
				iov[b].iov_base = buf[b];
				iov[b].iov_len = payload(i + b, v6, buf[b]);
				vec[b].msg_hdr.msg_name = ai->ai_addr;
				vec[b].msg_hdr.msg_namelen = ai->ai_addrlen;
				vec[b].msg_hdr.msg_iov = &iov[b];
				vec[b].msg_hdr.msg_iovlen = 1;
			}
			if (sendmmsg(fd, vec, (unsigned)batch, 0) != batch) {
				perror("sendmmsg");
				return 1;
			}
			for (int b = 0; b < batch; b++)
				print_hex(buf[b], iov[b].iov_len);
			i += batch;
			usleep(200);
			continue;
		}
		if (strcmp(call, "sendto") == 0) {
			n = sendto(fd, buf[0], len, 0, ai->ai_addr,
			    ai->ai_addrlen);
		} else if (strcmp(call, "send") == 0) {
			n = send(fd, buf[0], len, 0);
		} else if (strcmp(call, "write") == 0) {
			n = write(fd, buf[0], len);
		} else if (strcmp(call, "writev") == 0) {
			struct iovec iov[2] = { { buf[0], len / 3 },
			    { buf[0] + len / 3, len - len / 3 } };

			n = writev(fd, iov, 2);
		} else if (strcmp(call, "sendmsg") == 0) {
			/* Two pieces: the gather list reaches the wire whole. */
			struct iovec iov[2] = { { buf[0], len / 2 },
			    { buf[0] + len / 2, len - len / 2 } };
			struct msghdr msg = { 0 };

			msg.msg_name = ai->ai_addr;
			msg.msg_namelen = ai->ai_addrlen;
			msg.msg_iov = iov;
			msg.msg_iovlen = 2;
			n = sendmsg(fd, &msg, 0);
		}
		if (n != (ssize_t)len) {
			perror(call);
			return 1;
		}
		print_hex(buf[0], len);
		i++;
		/* Pace: the receiver is an ordinary kernel socket. */
		usleep(50);
	}
	freeaddrinfo(ai);
	close(fd);
	return 0;
}
