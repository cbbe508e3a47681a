#include "platform/MessageWindow.h"

#include <windows.h>

#include <atomic>
#include <string>

#include "platform/win32/Win32Names.h"

namespace kestrium::platform {

struct MessageWindow::Impl {
  HWND window = nullptr;
  std::u16string className;
  std::function<void()> onDestroy;
};

namespace {

std::atomic<HWND> consoleTarget{nullptr};

LRESULT CALLBACK windowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message == WM_NCCREATE) {
    const auto* create = reinterpret_cast<const CREATESTRUCTW*>(lParam);
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(create->lpCreateParams));
  }
  auto* impl = reinterpret_cast<MessageWindow::Impl*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  switch (message) {
    case WM_DESTROY:
      if (impl != nullptr && impl->onDestroy) impl->onDestroy();
      return 0;
    case WM_PAINT: {
      PAINTSTRUCT paint;
      BeginPaint(window, &paint);
      EndPaint(window, &paint);
      return 0;
    }
    default:
      return DefWindowProcW(window, message, wParam, lParam);
  }
}

BOOL WINAPI onConsoleControl(DWORD /*event*/) {
  const HWND window = consoleTarget.load();
  if (window == nullptr) return FALSE;
  PostMessageW(window, WM_DESTROY, 0, 0);
  return TRUE;
}

int startupShowCommand() {
  STARTUPINFOW info{};
  info.cb = sizeof info;
  GetStartupInfoW(&info);
  return (info.dwFlags & STARTF_USESHOWWINDOW) != 0 ? info.wShowWindow : SW_SHOWDEFAULT;
}

}  // namespace

MessageWindow::MessageWindow() = default;

MessageWindow::~MessageWindow() {
  if (!impl_) return;
  HWND window = impl_->window;
  consoleTarget.compare_exchange_strong(window, nullptr);
  // The window got WM_DESTROY only as a posted message: take it down for real,
  // without running the server's handler a second time.
  SetWindowLongPtrW(impl_->window, GWLP_USERDATA, 0);
  DestroyWindow(impl_->window);
  UnregisterClassW(win32::wide(impl_->className), GetModuleHandleW(nullptr));
}

bool MessageWindow::create(std::u16string_view name, bool visible, std::function<void()> onDestroy) {
  auto impl = std::make_unique<Impl>();
  impl->className = std::u16string(name);
  impl->onDestroy = std::move(onDestroy);
  const HINSTANCE instance = GetModuleHandleW(nullptr);

  WNDCLASSEXW windowClass{};
  windowClass.cbSize = sizeof windowClass;
  windowClass.style = CS_HREDRAW | CS_VREDRAW;
  windowClass.lpfnWndProc = windowProcedure;
  windowClass.hInstance = instance;
  windowClass.hCursor = LoadCursorW(nullptr, reinterpret_cast<LPCWSTR>(IDC_ARROW));
  windowClass.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1);
  windowClass.lpszClassName = win32::wide(impl->className);
  RegisterClassExW(&windowClass);

  impl->window = CreateWindowExW(0, win32::wide(impl->className), win32::wide(impl->className),
                                 WS_OVERLAPPEDWINDOW, CW_USEDEFAULT, 0, CW_USEDEFAULT, 0, nullptr, nullptr,
                                 instance, impl.get());
  if (impl->window == nullptr) return false;
  ShowWindow(impl->window, visible ? startupShowCommand() : SW_HIDE);
  UpdateWindow(impl->window);
  impl_ = std::move(impl);
  return true;
}

int MessageWindow::run() {
  MSG message;
  while (GetMessageW(&message, nullptr, 0, 0) > 0) {
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  return static_cast<int>(message.wParam);
}

void MessageWindow::postDestroy() {
  if (impl_) PostMessageW(impl_->window, WM_DESTROY, 0, 0);
}

void MessageWindow::quit(int code) { PostQuitMessage(code); }

void MessageWindow::destroyOnTerminationSignals() {
  if (!impl_) return;
  consoleTarget.store(impl_->window);
  SetConsoleCtrlHandler(onConsoleControl, TRUE);
}

}  // namespace kestrium::platform
