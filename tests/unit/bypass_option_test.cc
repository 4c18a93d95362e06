/* Bypass mode on the kernel socket: what it accepts, that it silences the
 * kernel path and gives it back, and that it never touches what is not ours. */
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <net/if.h>
#include <unistd.h>

#include "support.h"

namespace
{

so_ost_opt_t
opt(bool on, bool copies = false, int if_id = 3)
{
	so_ost_opt_t o = {};
	o.ost_onoff = on, o.ost_stat_id = 42, o.ost_if_id = if_id;
	o.ost_copies = copies, o.ost_mtu = 1500;
	return o;
}

const so_ost_opt_t kOn = opt(true), kOff = opt(false);

void
attach_drop_all(int sd)
{
	struct sock_filter drop[] = { BPF_STMT(BPF_RET | BPF_K, 0) };
	struct sock_fprog prog = { 1, drop };
	ASSERT_EQ(real_setsockopt(sd, SOL_SOCKET, SO_ATTACH_FILTER, &prog,
		      sizeof(prog)),
	    0);
}

/* The kernel socket stays live beside a handle fed by it; beside one that
 * sees copies it drops exactly what the handle serves: whole datagrams on
 * the handle's interface to its address and port. */
TEST(BypassOption, KernelSocketDropsOnlyWhatTheHandleServes)
{
	ost_test_init();
	for (int family : { AF_INET, AF_INET6 }) {
		struct sockaddr_storage addr;
		int sd = bound_udp_socket(family, &addr);
		so_ost_opt_t copies = opt(true, true, if_nametoindex("lo"));
		ASSERT_GE(sd, 0);
		copies.ost_v6 = family == AF_INET6;
		copies.ost_port = ((struct sockaddr_in *)&addr)->sin_port;
		copies.ost_naddrs = 1;
		inet_pton(AF_INET6, copies.ost_v6 ? "::1" : "::ffff:127.0.0.1",
		    &copies.ost_addrs[0]);
		so_ost_opt_t elsewhere = copies, other_addr = copies;
		elsewhere.ost_if_id = 999;
		other_addr.ost_addrs[0].s6_addr[15] ^= 2;
		const struct {
			const char *what;
			const so_ost_opt_t *o;
			size_t len;
			bool live;
		} steps[] = {
			{ "steered", &kOn, 100, true },
			{ "served", &copies, 100, false },
			{ "above the link", &copies, 3000, true },
			{ "other interface", &elsewhere, 100, true },
			{ "other address", &other_addr, 100, true },
			{ "off", &kOff, 100, true },
			{ "off twice", &kOff, 100, true },
		};
		for (const auto &st : steps) {
			ASSERT_EQ(ost_kernel_bypass_set(sd, st.o), 0)
			    << st.what;
			EXPECT_EQ(delivered(sd, addr, st.len), st.live)
			    << st.what;
		}
		close(sd);
	}
}

/* The application's own filter, and a reused descriptor, are not ours. */
TEST(BypassOption, LeavesOtherFiltersAndReusedDescriptorsAlone)
{
	ost_test_init();
	struct sockaddr_storage addr;
	int sd = bound_udp_socket(AF_INET, &addr);
	attach_drop_all(sd);
	EXPECT_EQ(ost_kernel_bypass_set(sd, &kOff), 0);
	EXPECT_FALSE(delivered(sd, addr)); /* still the app's filter */
	close(sd);

	sd = bound_udp_socket(AF_INET, &addr);
	so_ost_opt_t filtered = opt(true, true, 999);
	filtered.ost_port = ((struct sockaddr_in *)&addr)->sin_port;
	ASSERT_EQ(ost_kernel_bypass_set(sd, &filtered), 0);
	/* Another socket takes the same number behind our back. */
	struct sockaddr_storage addr2;
	int other = bound_udp_socket(AF_INET, &addr2);
	attach_drop_all(other);
	ASSERT_EQ(dup2(other, sd), sd);
	close(other);
	EXPECT_EQ(ost_kernel_bypass_set(sd, &kOff), 0);
	EXPECT_FALSE(delivered(sd, addr2)); /* its filter stayed */
	close(sd);
}

} // namespace
