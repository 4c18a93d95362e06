/* The one initialiser: runs when the run-time linker loads the library. */
#include "xnet/entry.h"

__attribute__((constructor)) static void
ost_load(void)
{
	ost_init();
}
