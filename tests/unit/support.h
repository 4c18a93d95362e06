/* Helpers shared by the unit tests of the library core. */
#ifndef OST_TEST_SUPPORT_H
#define OST_TEST_SUPPORT_H

#include <functional>
#include <string>

#include "ost_impl.h"

/* Descriptor numbers far above anything the test process opens, for
 * records that need no kernel socket. */
constexpr int kFakeFd = 1000003;

/* Starts the library once, as the run-time linker would. */
void ost_test_init();

/* Runs fn with standard error sent to a file and returns what it wrote. */
std::string capture_stderr(void (*fn)(void *), void *arg);

/* Runs body with the debug log on standard error and returns the log. */
std::string logged(const std::function<void()> &body);

/* The record's current reference count, read under its lock. */
uint32_t refcnt_of(uost_t *up);

/* The record of fd, without keeping a reference; null when there is none. */
uost_t *record(int fd);

/* Number of records in the registry. */
int registry_size();

/* Number of descriptors the process has open. */
int count_fds();

/* The variable's value, or "" when unset. */
const char *env(const char *name);

/* Six octets as aa:bb:cc:dd:ee:ff. */
std::string mac_str(const void *octets);

/* Binds fd to the loopback address of family, ephemeral port; addr gets
 * the bound address.  0, or -1. */
int bind_loopback(int fd, int family, struct sockaddr_storage *addr);

/* Sends one datagram to addr and says whether sd received it. */
bool delivered(int sd, const struct sockaddr_storage &addr);

/* A UDP socket bound to the loopback address of family. */
int bound_udp_socket(int family, struct sockaddr_storage *addr);

#endif
