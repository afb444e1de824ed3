/* Stands in for libgcc_eh, the part of the compiler's library that unwinds the stack: Debian builds it for
   glibc. The programs and their tests have no exceptions, so little of it is ever asked for.

   uClibc's pthread_exit asks to have what is on the stack cleaned up. There is nothing of the kind, so the way
   is short: straight to the end of the stack, where the C library's own function leaves the thread. */
#include <stddef.h>
#include <unwind.h>

_Unwind_Reason_Code _Unwind_ForcedUnwind(struct _Unwind_Exception* exception, _Unwind_Stop_Fn stop, void* argument)
{
    const _Unwind_Action end = _UA_FORCE_UNWIND | _UA_CLEANUP_PHASE | _UA_END_OF_STACK;
    return stop(1, end, exception->exception_class, exception, NULL, argument);
}

_Unwind_Word _Unwind_GetCFA(struct _Unwind_Context* context)
{
    (void)context;
    return 0;
}

/* The C++ library, for an exception that nobody threw. */
void _Unwind_DeleteException(struct _Unwind_Exception* exception)
{
    (void)exception;
}
