/*
 * frio_probe openfail IFACE: frio_open must fail; prints "status N: TEXT"
 * and exits 1 if the call succeeded or left a descriptor or mapping behind.
 */
#include <dirent.h>
#include <stdio.h>
#include <string.h>

#include "frio.h"

namespace
{

int
count_lines(const char *path)
{
	FILE *f = fopen(path, "r");
	int n = 0, c;

	if (f == nullptr)
		return -1;
	while ((c = fgetc(f)) != EOF)
		n += c == '\n';
	fclose(f);
	return n;
}

int
count_fds()
{
	DIR *d = opendir("/proc/self/fd");
	int n = 0;

	while (d != nullptr && readdir(d) != nullptr)
		n++;
	if (d != nullptr)
		closedir(d);
	return n;
}

} // namespace

int
main(int argc, char **argv)
{
	frio_handle_t h = nullptr;
	char buf[80];

	if (argc != 3 || strcmp(argv[1], "openfail") != 0) {
		fprintf(stderr, "usage: %s openfail IFACE\n", argv[0]);
		return 2;
	}
	/* Load what the open path pulls in before counting. */
	frio_status2str(FRIO_STATUS_OK, buf, sizeof(buf));
	int fds = count_fds(), maps = count_lines("/proc/self/maps");
	frio_status_t st = frio_open(argv[2], nullptr, &h);
	int fds2 = count_fds(), maps2 = count_lines("/proc/self/maps");

	printf("status %d: %s\n", st, frio_status2str(st, buf, sizeof(buf)));
	if (st == FRIO_STATUS_OK) {
		frio_close(h);
		return 1;
	}
	if (h != nullptr || fds2 != fds || maps2 > maps) {
		printf("leak: handle %p, descriptors %d -> %d, mappings %d -> "
		       "%d\n",
		    (void *)h, fds, fds2, maps, maps2);
		return 1;
	}
	return 0;
}
