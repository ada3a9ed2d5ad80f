/* QAX kernel: the main window, window hooks, title and the single-instance check. */
#ifndef ZK_WINDOW_H
#define ZK_WINDOW_H

#include "config.h"

ZK_EXTERN_C_BEGIN

typedef struct Window Window;

/* Called for every message of the library's windows, in order of addition.
 * Non-zero means handled: the window procedure then returns *result. */
typedef int(ZK_CALL* WindowHook)(zkNativeHandle hwnd, uint32_t message, zkAddr wParam,
                                  zkSAddr lParam, zkSAddr* result, zkAddr user);

/* Copies each non-null argument into its 256-byte field. Returns 0. */
ZK_API int32_t ZK_CALL zkSetTitle(const char* name, const char* caption);
/* The main window with one more reference, created if there is none; null on failure. */
ZK_API Window* ZK_CALL zkCreateMainWindow(void);
ZK_API Window* ZK_CALL zkGetMainWindow(void);
/* Drops one reference; the native window is destroyed at the last. Returns 0. */
ZK_API int32_t ZK_CALL zkReleaseWindow(Window* window);
ZK_API void ZK_CALL zkGetWindowNativeHandle(Window* window, zkNativeHandle* out);
ZK_API void ZK_CALL zkSetWindowVisibility(Window* window, int32_t visible);
/* 0, or -19 when 16 hooks exist. */
ZK_API int32_t ZK_CALL zkAddWindowHook(WindowHook hook, zkAddr user);
/* 0 for the first instance of this application name, 1 otherwise (ZK_INSTANCE_* flags). */
ZK_API uint32_t ZK_CALL zkCheckMultipleInstances(uint32_t flags);

ZK_EXTERN_C_END

#endif /* ZK_WINDOW_H */
