/*
 * An arrival counter on a bypass socket's kernel socket.  Everything the
 * kernel still delivers there (fragments, loopback, other interfaces)
 * must be seen by a waiting receive, but asking the socket costs a system
 * call, and a wait that asks on every turn spends more on asking than on
 * the datagrams.  A socket filter that accepts every datagram and counts
 * it in a page this process maps lets a wait ask only when the count
 * moved since the socket was last found empty.
 */
#ifndef OST_OS_KERNEL_COUNT_H
#define OST_OS_KERNEL_COUNT_H

#include <stdint.h>

/*
 * Attaches the counting filter to sd, which has none, and maps its count;
 * null when the kernel refuses (no privilege for BPF, an old kernel): the
 * caller then asks the kernel socket on a timer, as before.
 */
const uint64_t *ost_kernel_count_attach(int sd);
/* Takes the filter off sd when it is still open, and unmaps the count. */
void ost_kernel_count_detach(int sd, const uint64_t *count, bool sd_open);

#endif /* OST_OS_KERNEL_COUNT_H */
