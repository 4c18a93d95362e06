/*
 * The counting filter: an eBPF socket filter whose only work is an atomic
 * add to the single value of a memory-mappable array map, made with raw
 * bpf() calls (no loader library for five instructions).  The program and
 * the map descriptors are closed once attached and mapped: the socket
 * holds the program, the mapping holds the map, and the application sees
 * no descriptor of ours.
 */
#include <errno.h>
#include <linux/bpf.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "os/kernel_count.h"
#include "os/libc.h"
#include "os/log.h"

static int
ost_bpf(int cmd, union bpf_attr *attr)
{
	return (int)syscall(__NR_bpf, cmd, attr, sizeof(*attr));
}

static int
ost_count_map(void)
{
	union bpf_attr a;

	memset(&a, 0, sizeof(a));
	a.map_type = BPF_MAP_TYPE_ARRAY;
	a.key_size = 4;
	a.value_size = 8;
	a.max_entries = 1;
	a.map_flags = BPF_F_MMAPABLE;
	return ost_bpf(BPF_MAP_CREATE, &a);
}

/* count += 1; accept the whole datagram. */
static int
ost_count_prog(int map_fd)
{
	struct bpf_insn insn[6];
	union bpf_attr a;

	memset(insn, 0, sizeof(insn));
	/* r1 = the address of the map's value (a two-slot load) */
	insn[0].code = BPF_LD | BPF_DW | BPF_IMM;
	insn[0].dst_reg = BPF_REG_1;
	insn[0].src_reg = BPF_PSEUDO_MAP_VALUE;
	insn[0].imm = map_fd;
	/* r2 = 1 */
	insn[2].code = BPF_ALU64 | BPF_MOV | BPF_K;
	insn[2].dst_reg = BPF_REG_2;
	insn[2].imm = 1;
	/* lock *(u64 *)r1 += r2 */
	insn[3].code = BPF_STX | BPF_ATOMIC | BPF_DW;
	insn[3].dst_reg = BPF_REG_1;
	insn[3].src_reg = BPF_REG_2;
	insn[3].imm = BPF_ADD;
	/* return 0xffffffff: keep every byte */
	insn[4].code = BPF_ALU | BPF_MOV | BPF_K;
	insn[4].dst_reg = BPF_REG_0;
	insn[4].imm = -1;
	insn[5].code = BPF_JMP | BPF_EXIT;

	memset(&a, 0, sizeof(a));
	a.prog_type = BPF_PROG_TYPE_SOCKET_FILTER;
	a.insns = (uint64_t)(uintptr_t)insn;
	a.insn_cnt = 6;
	a.license = (uint64_t)(uintptr_t) "Dual BSD/GPL";
	return ost_bpf(BPF_PROG_LOAD, &a);
}

const uint64_t *
ost_kernel_count_attach(int sd)
{
	long page = sysconf(_SC_PAGESIZE);
	int saved = errno, map_fd, prog_fd = -1;
	void *count = MAP_FAILED;
	const char *step = "map";

	map_fd = ost_count_map();
	if (map_fd >= 0) {
		step = "mmap";
		count =
		    mmap(NULL, (size_t)page, PROT_READ, MAP_SHARED, map_fd, 0);
	}
	if (count != MAP_FAILED) {
		step = "program";
		prog_fd = ost_count_prog(map_fd);
	}
	if (prog_fd >= 0) {
		step = "SO_ATTACH_BPF";
		if (real_setsockopt(sd, SOL_SOCKET, SO_ATTACH_BPF, &prog_fd,
			sizeof(prog_fd)) == 0)
			step = NULL;
	}
	if (step != NULL) {
		ost_debug("%d: no arrival count on the kernel socket (%s: "
			  "%s): it is asked on a timer\n",
		    sd, step, strerror(errno));
		if (count != MAP_FAILED)
			(void)munmap(count, (size_t)page);
		count = MAP_FAILED;
	}
	if (prog_fd >= 0)
		(void)real_close(prog_fd);
	if (map_fd >= 0)
		(void)real_close(map_fd);
	errno = saved;
	return count == MAP_FAILED ? NULL : (const uint64_t *)count;
}

void
ost_kernel_count_detach(int sd, const uint64_t *count, bool sd_open)
{
	int saved = errno, unused = 0;

	if (sd_open)
		(void)real_setsockopt(sd, SOL_SOCKET, SO_DETACH_FILTER, &unused,
		    sizeof(unused));
	(void)munmap((void *)count, (size_t)sysconf(_SC_PAGESIZE));
	errno = saved;
}
