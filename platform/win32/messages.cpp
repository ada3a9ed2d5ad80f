// The calling thread's message queue: peek, dispatch, post, quit, and the wait
// that wakes for an event or for a message.
#include "platform/platform.h"

#include <windows.h>

namespace zk::os {

bool MessagePeek(Message* out) {
    MSG message;
    if (!PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) return false;
    if (out) {
        out->window = message.hwnd;
        out->message = message.message;
        out->wParam = static_cast<zkAddr>(message.wParam);
        out->lParam = static_cast<zkSAddr>(message.lParam);
    }
    return true;
}

void MessageDispatch(const Message& message) {
    MSG native{};
    native.hwnd = static_cast<HWND>(message.window);
    native.message = message.message;
    native.wParam = static_cast<WPARAM>(message.wParam);
    native.lParam = static_cast<LPARAM>(message.lParam);
    // Time and cursor position of the message last taken from the queue,
    // which is the one being dispatched.
    native.time = static_cast<DWORD>(GetMessageTime());
    DWORD position = GetMessagePos();
    native.pt.x = static_cast<short>(LOWORD(position));
    native.pt.y = static_cast<short>(HIWORD(position));
    TranslateMessage(&native);
    DispatchMessageA(&native);
}

bool MessagePost(Handle window, uint32_t message, zkAddr wParam, zkSAddr lParam) {
    // A null window would make this a thread message; only windows are posted to.
    if (!window) return false;
    return PostMessageA(static_cast<HWND>(window), message, static_cast<WPARAM>(wParam),
                        static_cast<LPARAM>(lParam)) != 0;
}

void MessagePostQuit(int32_t exitCode) {
    PostQuitMessage(exitCode);
}

WakeReason WaitEventOrMessage(Handle event) {
    // Without an event the wait is for messages alone.
    HANDLE objects[1] = {event};
    DWORD count = event ? 1 : 0;
    DWORD woke = MsgWaitForMultipleObjects(count, objects, FALSE, INFINITE, QS_ALLINPUT);
    if (woke == WAIT_OBJECT_0 + count) return WakeReason::Message;
    if (count == 1 && woke == WAIT_OBJECT_0) return WakeReason::Event;
    return WakeReason::Failed;
}

} // namespace zk::os
