/*
 * Consistency checks that stay in release builds.  They guard invariants
 * that no sequence of application calls can break; a failure is a bug in
 * this library, and going on would corrupt the application's memory.
 */
#ifndef OST_OS_VERIFY_H
#define OST_OS_VERIFY_H

[[noreturn]] void ost_verify_failed(const char *expr, const char *file,
    int line, const char *func);

#define OST_VERIFY(expr)    \
	((expr) ? (void)0 : \
		  ost_verify_failed(#expr, __FILE__, __LINE__, __func__))

#endif /* OST_OS_VERIFY_H */
