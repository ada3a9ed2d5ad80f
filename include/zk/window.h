/**
 * @file
 * @brief The main window, window hooks, title and the single-instance check.
 */
#ifndef ZK_WINDOW_H
#define ZK_WINDOW_H

#include "config.h"

/**
 * @defgroup window Main window
 * @brief The main window, hooks on its messages, its title, and the
 * single-instance check.
 *
 * zkInitialize registers a window class under the application's name and
 * creates the main window, hidden, on the calling (main) thread. On Windows
 * it is a top-level window with a caption, a system menu and a minimise box,
 * titled with the caption of zkSetTitle. On Linux there is no screen: the
 * window is a record inside the process with the same messages, title and
 * visible flag, and showing it changes only the flag. Its messages are
 * dispatched by the frame loop on the main thread, where the hooks run.
 *
 * Every call of this group is for the main thread, except
 * zkPostWindowMessage (any thread).
 * @{
 */

ZK_EXTERN_C_BEGIN

/** A window of the library (the main window). */
typedef struct Window Window;

/** Called for every message of the library's windows, in order of addition,
 * on the thread that owns the window. Non-zero means handled: the window
 * procedure then returns *result. */
typedef int(ZK_CALL* WindowHook)(zkNativeHandle hwnd, uint32_t message, zkAddr wParam,
                                 zkSAddr lParam, zkSAddr* result, zkAddr user);

/**
 * @brief Sets the application's name (window class, instance check) and the
 * main window's caption.
 *
 * Copies each non-null argument into its 256-byte field, cut to 255
 * characters and terminated; a null argument leaves its field alone. Call it
 * after zkBeginProcess (which resets both to "QAX Application") and before
 * zkInitialize.
 * @param name the application's name, or null
 * @param caption the main window's caption, or null
 * @return 0, always
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkSetTitle(const char* name, const char* caption);
/**
 * @brief The main window with one more reference, created if there is none.
 * @return the window, or null when it cannot be created (no window class,
 *         every window record taken, the system refused)
 * @threads The main thread.
 */
ZK_API Window* ZK_CALL zkCreateMainWindow(void);
/**
 * @brief The main window without a new reference.
 * @return the window, or null when there is none
 * @threads The main thread.
 */
ZK_API Window* ZK_CALL zkGetMainWindow(void);
/**
 * @brief Drops one reference; the native window is destroyed at the last.
 * @param window the window; null or a foreign pointer does nothing
 * @return 0, always
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkReleaseWindow(Window* window);
/**
 * @brief The system's window handle (HWND on Windows; the backend's window
 * record on Linux).
 * @param window the window
 * @param out receives the handle (null for a null window); a null out does nothing
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkGetWindowNativeHandle(Window* window, zkNativeHandle* out);
/**
 * @brief Shows or hides the window.
 * @param window the window; null does nothing
 * @param visible non-zero shows, 0 hides
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetWindowVisibility(Window* window, int32_t visible);
/**
 * @brief Whether the window's native window is visible.
 * @return 1 when visible, 0 otherwise (also for null)
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkIsWindowVisible(Window* window);
/**
 * @brief Appends a hook on the messages of the library's windows; hooks stay
 * for as long as the library is loaded.
 * @param hook the hook
 * @param user passed to every call of the hook
 * @return 0; -3 for a null hook; -19 when 16 hooks exist
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkAddWindowHook(WindowHook hook, zkAddr user);
/**
 * @brief Checks whether another instance of this application name runs.
 *
 * Takes a named mutex (a lock file on Linux) for the application's name,
 * held until zkEndProcess. When another instance holds it, the main window
 * is released and, with ZK_INSTANCE_ACTIVATE, the other instance's window is
 * restored and brought to the front (on Linux only windows of this process
 * can be found).
 * @param flags ZK_INSTANCE_GLOBAL, ZK_INSTANCE_ACTIVATE
 * @return 0 for the first instance, 1 when another instance exists
 * @threads The main thread.
 */
ZK_API uint32_t ZK_CALL zkCheckMultipleInstances(uint32_t flags);

/**
 * @brief Queues a message for the window, to be dispatched by the frame loop.
 *
 * The message goes to the queue of the thread that created the window.
 * @return 0; -4 for a null or destroyed window, or when the queue refuses it
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkPostWindowMessage(Window* window, uint32_t message, zkAddr wParam,
                                           zkSAddr lParam);
/**
 * @brief Queues WM_QUIT for the calling thread: the frame loop ends when it takes it.
 * @param exitCode carried by the message
 * @threads The main thread (another thread quits only its own queue).
 */
ZK_API void ZK_CALL zkPostQuitMessage(int32_t exitCode);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_WINDOW_H */
