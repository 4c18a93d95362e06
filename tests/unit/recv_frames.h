/* A bypass socket attached to an in-memory frame handle, and frames
 * addressed to it. */
#ifndef OST_TEST_RECV_FRAMES_H
#define OST_TEST_RECV_FRAMES_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../frio/frame_util.h"
#include "frio_mem.h"
#include "support.h"

inline std::string
err_str(int e)
{
	return "<" + std::to_string(e) + ">";
}

/* Bound to loopback with a mem handle (of interface index if_index) and
 * filter, as bind leaves it. */
struct BypassSock {
	int family = AF_INET, fd = -1;
	uost_t *up = nullptr;
	frio_handle_t hdl = nullptr;
	struct sockaddr_storage local = {};

	void open(int fam, uint32_t if_index = 0)
	{
		family = fam;
		ost_test_init();
		setenv("FRIO_BACKEND", "mem", 1);
		fd = ost_socket(family, SOCK_DGRAM, 0);
		ASSERT_GE(fd, 0);
		ASSERT_EQ(bind_loopback(fd, family, &local), 0);
		up = record(fd);
		struct in6_addr laddr;
		inet_pton(AF_INET6,
		    family == AF_INET ? "::ffff:127.0.0.1" : "::1", &laddr);
		ASSERT_TRUE(attach_to_mem(up, "mem0", &laddr,
		    ((struct sockaddr_in *)&local)->sin_port, if_index));
		hdl = up->uost_frio_hdl;
	}

	void close_sock()
	{
		if (fd >= 0)
			ost_close(fd);
		fd = -1;
		up = nullptr;
	}

	socklen_t addr_len() const
	{
		return family == AF_INET6 ? sizeof(struct sockaddr_in6) :
					    sizeof(struct sockaddr_in);
	}

	/* A datagram from 192.0.2.2 or 2001:db8::2 port 5000, as a kernel
	 * sender makes it. */
	void inject(const std::string &payload) const
	{
		struct in6_addr peer;
		inet_pton(AF_INET6,
		    family == AF_INET6 ? "2001:db8::2" : "::ffff:192.0.2.2",
		    &peer);
		std::vector<uint8_t> f =
		    frio_test::udp_frame(family == AF_INET6, payload, peer,
			htons(5000), up->uost_laddr_v6, up->uost_lport);
		while (frio_mem_inject(hdl, f.data(), f.size()) ==
		    FRIO_STATUS_NOMEM)
			usleep(100); /* queue full: a receiver drains it */
	}

	/* recv(): the payload, or "<errno>". */
	std::string recv(int flags = 0) const
	{
		char buf[4096];
		ssize_t n = ost_recvfrom_call(fd, buf, sizeof(buf), flags,
		    nullptr, nullptr);
		return n < 0 ? err_str(errno) : std::string(buf, (size_t)n);
	}
};

inline std::string
family_name(const ::testing::TestParamInfo<int> &p)
{
	return p.param == AF_INET6 ? "v6" : "v4";
}

#endif
