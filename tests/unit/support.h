/* Helpers shared by the unit tests of the library core. */
#ifndef OST_TEST_SUPPORT_H
#define OST_TEST_SUPPORT_H

#include <string>

#include "ost_impl.h"

/* Descriptor numbers far above anything the test process opens, for
 * records that need no kernel socket. */
constexpr int kFakeFd = 1000003;

/* Starts the library once, as the run-time linker would. */
void ost_test_init();

/* Runs fn with standard error sent to a file and returns what it wrote. */
std::string capture_stderr(void (*fn)(void *), void *arg);

/* The record's current reference count, read under its lock. */
uint32_t refcnt_of(uost_t *up);

/* The record of fd, without keeping a reference; null when there is none. */
uost_t *record(int fd);

/* Number of records in the registry. */
int registry_size();

/* A UDP socket bound to 127.0.0.1 on an ephemeral port. */
int bound_udp_socket(int family, struct sockaddr_storage *addr);

#endif
