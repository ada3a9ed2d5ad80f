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

/* Copies each non-null argument into its 256-byte field, cut to 255 characters
 * and terminated; a null argument leaves its field alone. Returns 0. Call it after
 * zkBeginProcess (which resets both to "QAX Application") and before zkInitialize. */
ZK_API int32_t ZK_CALL zkSetTitle(const char* name, const char* caption);
/* The main window with one more reference, created if there is none; null on failure. */
ZK_API Window* ZK_CALL zkCreateMainWindow(void);
/* The main window without a new reference, or null. */
ZK_API Window* ZK_CALL zkGetMainWindow(void);
/* Drops one reference; the native window is destroyed at the last. Returns 0. */
ZK_API int32_t ZK_CALL zkReleaseWindow(Window* window);
/* The system's window handle (HWND on Windows) in *out; null window: null. */
ZK_API void ZK_CALL zkGetWindowNativeHandle(Window* window, zkNativeHandle* out);
/* Shows (non-zero) or hides the window; null does nothing. */
ZK_API void ZK_CALL zkSetWindowVisibility(Window* window, int32_t visible);
/* 1 when the window's native window is visible, 0 otherwise (also for null). */
ZK_API int32_t ZK_CALL zkIsWindowVisible(Window* window);
/* Appends a hook; hooks stay for as long as the library is loaded.
 * 0, -3 for a null hook, or -19 when 16 hooks exist. */
ZK_API int32_t ZK_CALL zkAddWindowHook(WindowHook hook, zkAddr user);
/* 0 for the first instance of this application name, 1 otherwise (ZK_INSTANCE_* flags). */
ZK_API uint32_t ZK_CALL zkCheckMultipleInstances(uint32_t flags);

/* Queues a message for the window on the queue of the thread that created it,
 * to be dispatched by the frame loop. 0, or -4 for a null or destroyed window. */
ZK_API int32_t ZK_CALL zkPostWindowMessage(Window* window, uint32_t message, zkAddr wParam,
                                           zkSAddr lParam);
/* Queues WM_QUIT for the calling thread: the frame loop ends when it takes it. */
ZK_API void ZK_CALL zkPostQuitMessage(int32_t exitCode);

ZK_EXTERN_C_END

#endif /* ZK_WINDOW_H */
