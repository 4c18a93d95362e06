/*
 * udp_echo: the simplest event-loop server, one UDP socket, poll() for
 * it to be readable, then one recvfrom and one sendto back to the peer.
 *
 *   udp_echo ADDR PORT
 *
 * Runs until killed.
 */
#define _GNU_SOURCE
#include <netdb.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>

int
main(int argc, char **argv)
{
	struct addrinfo hints = { 0 }, *ai;
	struct pollfd pfd;
	char buf[2048];

	if (argc < 3) {
		fprintf(stderr, "usage: udp_echo ADDR PORT\n");
		return 2;
	}
	hints.ai_socktype = SOCK_DGRAM;
	hints.ai_flags = AI_NUMERICHOST;
	if (getaddrinfo(argv[1], argv[2], &hints, &ai) != 0)
		return 2;
	pfd.fd = socket(ai->ai_family, SOCK_DGRAM, 0);
	pfd.events = POLLIN;
	if (pfd.fd < 0 || bind(pfd.fd, ai->ai_addr, ai->ai_addrlen) != 0) {
		perror("udp_echo");
		return 1;
	}
	for (;;) {
		struct sockaddr_storage peer;
		socklen_t plen = sizeof(peer);
		ssize_t n;

		if (poll(&pfd, 1, -1) <= 0 || !(pfd.revents & POLLIN))
			continue;
		n = recvfrom(pfd.fd, buf, sizeof(buf), MSG_DONTWAIT,
		    (struct sockaddr *)&peer, &plen);
		if (n >= 0)
			(void)sendto(pfd.fd, buf, (size_t)n, 0,
			    (struct sockaddr *)&peer, plen);
	}
}
