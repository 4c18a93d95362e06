/* Helpers shared by the unit tests of the library core. */
#ifndef OST_TEST_SUPPORT_H
#define OST_TEST_SUPPORT_H

#include <string>

#include "core/ost.h"
#include "core/receive.h"

/* A descriptor number far above any the process opens. */
constexpr int kFakeFd = 1000003;

void ost_test_init();
uint32_t refcnt_of(uost_t *up);
/* fd's record without keeping a reference, or null. */
uost_t *record(int fd);
int registry_size();
int count_fds();
/* The variable's value, or "". */
const char *env(const char *name);
/* Six octets as aa:bb:cc:dd:ee:ff. */
std::string mac_str(const void *octets);
/* Binds fd to family's loopback address, ephemeral port: 0 or -1. */
int bind_loopback(int fd, int family, struct sockaddr_storage *addr);
/* A kernel UDP socket bound that way. */
int bound_udp_socket(int family, struct sockaddr_storage *addr);
/*
 * Points up at mem interface if_name (index if_index) with address addr and
 * port, and attaches it, as bind does for an interface's own address.
 */
bool attach_to_mem(uost_t *up, const char *if_name, const struct in6_addr *addr,
    in_port_t port, uint32_t if_index = 0);
/* Sends a datagram of len bytes to addr; whether sd received it. */
bool delivered(int sd, const struct sockaddr_storage &addr, size_t len = 4);

#endif
