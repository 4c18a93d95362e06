// SPDX-License-Identifier: GPL-2.0
/*
 * Steering program of libfrio's AF_XDP backend.  It hands a frame to an
 * AF_XDP socket only when the frame is a plain, self-consistent UDP datagram
 * whose (destination MAC, destination address, destination port) a handle
 * asked for; everything else goes to the kernel untouched, so ARP,
 * neighbour discovery, ICMP, TCP and traffic to other ports keep working.
 *
 * Untagged Ethernet only: a VLAN-tagged frame passes to the kernel.
 */
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/ip.h>
#include <linux/ipv6.h>
#include <linux/udp.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "frio_steer.h"

struct {
	__uint(type, BPF_MAP_TYPE_XSKMAP);
	__uint(max_entries, FRIO_STEER_MAX_SLOTS);
	__uint(key_size, sizeof(__u32));
	__uint(value_size, sizeof(__u32));
} frio_xsks_1k SEC(".maps");

struct {
	__uint(type, BPF_MAP_TYPE_HASH);
	__uint(max_entries, FRIO_STEER_MAX_FILTERS);
	__uint(map_flags, BPF_F_NO_PREALLOC);
	__type(key, struct frio_steer_key);
	__type(value, struct frio_steer_val);
} frio_filters_2 SEC(".maps");

SEC("xdp")
int
frio_steer(struct xdp_md *ctx)
{
	void *data = (void *)(long)ctx->data;
	void *end = (void *)(long)ctx->data_end;
	struct ethhdr *eth = data;
	struct frio_steer_key key;
	struct frio_steer_val *val;
	struct udphdr *udp;
	__u32 avail;

	if ((void *)(eth + 1) > end || end - data > FRIO_STEER_MAX_FRAME)
		return XDP_PASS;
	__builtin_memcpy(key.fk_mac, eth->h_dest, sizeof(key.fk_mac));

	if (eth->h_proto == bpf_htons(ETH_P_IP)) {
		struct iphdr *ip = (void *)(eth + 1);
		__u32 tot;

		udp = (void *)(ip + 1);
		if ((void *)(udp + 1) > end)
			return XDP_PASS;
		/* Options and fragments are the kernel's business. */
		if (ip->version != 4 || ip->ihl != 5 ||
		    ip->protocol != IPPROTO_UDP ||
		    (ip->frag_off & bpf_htons(0x3fff)) != 0)
			return XDP_PASS;
		tot = bpf_ntohs(ip->tot_len);
		avail = (__u32)(end - (void *)ip);
		if (tot > avail || tot < sizeof(*ip) + sizeof(*udp) ||
		    bpf_ntohs(udp->len) != tot - sizeof(*ip))
			return XDP_PASS;
		__builtin_memset(key.fk_addr, 0, 10);
		key.fk_addr[10] = 0xff;
		key.fk_addr[11] = 0xff;
		__builtin_memcpy(&key.fk_addr[12], &ip->daddr, 4);
	} else if (eth->h_proto == bpf_htons(ETH_P_IPV6)) {
		struct ipv6hdr *ip6 = (void *)(eth + 1);
		__u32 plen;

		udp = (void *)(ip6 + 1);
		if ((void *)(udp + 1) > end)
			return XDP_PASS;
		/* UDP right after the fixed header: no extension headers. */
		if (ip6->version != 6 || ip6->nexthdr != IPPROTO_UDP)
			return XDP_PASS;
		plen = bpf_ntohs(ip6->payload_len);
		avail = (__u32)(end - (void *)udp);
		if (plen > avail || plen < sizeof(*udp) ||
		    bpf_ntohs(udp->len) != plen)
			return XDP_PASS;
		__builtin_memcpy(key.fk_addr, &ip6->daddr, 16);
	} else {
		return XDP_PASS;
	}
	key.fk_port = udp->dest;

	val = bpf_map_lookup_elem(&frio_filters_2, &key);
	/* A socket bound to another queue would refuse the frame and the
	 * redirect would drop it. */
	if (!val || val->fv_queue != ctx->rx_queue_index)
		return XDP_PASS;
	/* An empty slot (its socket closed, its process gone) falls back to
	 * the kernel instead of dropping: the flags carry the action taken
	 * when the lookup fails. */
	return bpf_redirect_map(&frio_xsks_1k, val->fv_slot, XDP_PASS);
}

char _license[] SEC("license") = "GPL";
