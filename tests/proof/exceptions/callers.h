/* The ways to call the library that the proof goes through. Those in C are compiled twice, with and
 * without tables for unwinding the stack. */

#ifndef TARNFW_TESTS_PROOF_EXCEPTIONS_CALLERS_H
#define TARNFW_TESTS_PROOF_EXCEPTIONS_CALLERS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Calls `operation`, an operation of the C++ interface, from a C function. */
int callFromC(int (*operation)(void));
int callFromCWithoutTables(int (*operation)(void));

/* Call the C interface: services pruned, then a reload. */
int hupFromC(void);
int hupFromCWithoutTables(void);

#ifdef __cplusplus
}
#endif

#endif
