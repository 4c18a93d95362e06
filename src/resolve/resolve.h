/*
 * Path resolution: the route to a destination, the link-layer address of
 * the next hop and the facts about this host's interfaces, asked of the
 * kernel afresh on every call.  Nothing is cached here; callers keep the
 * results in the socket's record.
 *
 * Every function returns true with its outputs written, or false with
 * the reason in the debug log.  None of them sets errno for its caller, and
 * every socket or list one opens is released before it returns.  None keeps
 * shared state, so any number of threads may call them at once.  A call
 * can block up to 1 s for a lost netlink answer, but never provokes
 * neighbour resolution: an unresolved next hop is the kernel's to resolve
 * as it sends, and the watch below says when its entry appears.
 */
#ifndef OST_RESOLVE_RESOLVE_H
#define OST_RESOLVE_RESOLVE_H

#include <net/ethernet.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#include "os/clock.h"

#define OST_IFNAME_SIZE 32 /* interface names, with room to spare */

/*
 * The interface that carries an address (ost_find_if_v6): its name, cut at
 * the first colon, and its index.
 */
typedef struct ost_ifref {
	char ir_name[OST_IFNAME_SIZE];
	uint32_t ir_index;
} ost_ifref_t;

/*
 * The outgoing interface for dst (network order) and the gateway, or all
 * zero bits when dst is on-link.  On false neither output is written.
 */
bool ost_get_route_v4(const struct in_addr *dst, uint32_t *if_index,
    struct in_addr *gateway);
bool ost_get_route_v6(const struct in6_addr *dst, uint32_t *if_index,
    struct in6_addr *gateway);

/*
 * The Ethernet address of addr: the interface's own address when addr is
 * one of this host's, else the neighbour table's complete entry.  Writes
 * the interface's index and, unless if_name (32 bytes) is null, its name.
 */
bool ost_get_eaddr_v4(const struct in_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name);

/*
 * The first address of interface if_name that is up (any label of it), the
 * source address of frames sent through that interface.
 */
bool ost_if_addr_v4(const char *if_name, struct in_addr *addr);

/*
 * One IPv6 address of interface if_index and the interface's name (32
 * bytes).  link_local null: the first address that is not link-local, else
 * the last link-local one; pointing to true: the first link-local one;
 * pointing to false: the first one that is not link-local.
 */
bool ost_get_if_info_v6(uint32_t if_index, const bool *link_local,
    struct in6_addr *addr, char *if_name);

/*
 * The interface that carries addr, on interface scope_id unless it is 0.
 * The first carrier that is down ends the search.
 */
bool ost_find_if_v6(const struct in6_addr *addr, uint32_t scope_id,
    ost_ifref_t *ifr);

/*
 * The link-layer address of addr.  With a name in if_name (32 bytes, never
 * null), the neighbour table's entry on that interface, or the interface's
 * own address when addr is one of its addresses; if_index is not used.
 * With if_name empty, addr must be one of this host's addresses (on
 * interface *if_index unless it is 0); the owner's name and index are
 * written to if_name and *if_index.  Never provokes neighbour discovery.
 */
bool ost_get_eaddr_v6(const struct in6_addr *addr, struct ether_addr *ether,
    uint32_t *if_index, char *if_name);

/* The MTU of interface if_name, or 0 when the kernel does not say. */
uint32_t ost_if_mtu(const char *if_name);

/*
 * The watch over the kernel's link, address, route and neighbour tables
 * (resolve/watch.cc): a generation that changes whenever a destination
 * resolved before may no longer be right.  ost_watch_gen costs a clock
 * read and a load, plus, at most every OST_WATCH_POLL_NS in the whole
 * process, a read of the watch's socket that never waits.
 */
#define OST_WATCH_POLL_NS (2 * 1000 * 1000)
uint32_t ost_watch_gen(void);
/* The same for a caller that has just read the clock. */
uint32_t ost_watch_gen_at(hrtime_t now);
/* A next hop resolved to mac: its table entry walking through states
 * with the same address is not news. */
void ost_watch_note_neigh(int family, uint32_t ifindex, const void *addr,
    const struct ether_addr *mac);
/*
 * For tests: one buffer of rtnetlink messages, as if read; a start that
 * forgets the neighbours seen, frozen: the kernel's own news ignored, so
 * that only ost_watch_feed moves the generation.
 */
void ost_watch_feed(const void *buf, size_t len);
void ost_watch_reset(bool frozen);

#endif /* OST_RESOLVE_RESOLVE_H */
