/*
 * fork_threads CHILDREN ADDR PORT: 3 threads loop over socket, sendto
 * ADDR:PORT, read, close (and /dev/null I/O) while the main thread forks
 * CHILDREN children in turn; each child sends on, receives from and closes
 * the UDP sockets among descriptors 3 to 63, and exits 0.  One not gone 2 s
 * after its fork is hung (and killed).  Prints "hung H of CHILDREN"; exit 1
 * if H > 0.
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <netinet/in.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static struct sockaddr_in peer;
static volatile int stop;
static int devnull;

static void *
churn(void *arg)
{
	char buf[64] = "x";

	while (!stop) {
		int s = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);

		if (s < 0)
			continue;
		(void)sendto(s, buf, 8, 0, (struct sockaddr *)&peer,
		    sizeof(peer));
		(void)write(devnull, buf, 1);
		(void)read(s, buf, sizeof(buf));
		(void)read(devnull, buf, sizeof(buf));
		(void)close(s);
	}
	return arg;
}

static double
now(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec + ts.tv_nsec / 1e9;
}

/* Whether pid exited 0 within 2 s; kills it otherwise. */
static int
reaped(pid_t pid)
{
	double end = now() + 2.0;
	int st;

	while (now() < end) {
		pid_t r = waitpid(pid, &st, WNOHANG);

		if (r == pid)
			return WIFEXITED(st) && WEXITSTATUS(st) == 0;
		usleep(1000);
	}
	(void)kill(pid, SIGKILL);
	(void)waitpid(pid, &st, 0);
	return 0;
}

int
main(int argc, char **argv)
{
	enum {
		threads = 3
	};
	int children, hung = 0;
	pthread_t tid[threads];

	if (argc < 4 || inet_pton(AF_INET, argv[2], &peer.sin_addr) != 1) {
		fprintf(stderr, "usage: fork_threads CHILDREN ADDR PORT\n");
		return 2;
	}
	children = atoi(argv[1]);
	peer.sin_family = AF_INET;
	peer.sin_port = htons((unsigned short)atoi(argv[3]));
	devnull = open("/dev/null", O_RDWR);
	for (int i = 0; i < threads; i++)
		pthread_create(&tid[i], NULL, churn, NULL);
	for (int i = 0; i < children; i++) {
		pid_t pid = fork();

		if (pid == 0) {
			char buf[8] = "y";

			(void)write(devnull, buf, 1);
			(void)read(devnull, buf, 1);
			for (int fd = 3; fd < 64; fd++) {
				int proto = 0;
				socklen_t len = sizeof(proto);

				if (fd == devnull)
					continue;
				if (getsockopt(fd, SOL_SOCKET, SO_PROTOCOL,
					&proto, &len) == 0 &&
				    proto == IPPROTO_UDP) {
					(void)send(fd, buf, 1, MSG_DONTWAIT);
					(void)recv(fd, buf, 1, MSG_DONTWAIT);
				}
				(void)close(fd);
			}
			_exit(0);
		}
		if (pid < 0)
			perror("fork");
		else if (!reaped(pid))
			hung++;
	}
	stop = 1;
	for (int i = 0; i < threads; i++)
		pthread_join(tid[i], NULL);
	printf("hung %d of %d\n", hung, children);
	return hung > 0;
}
