// Internal: the loop's own libuv handles, each a zero-filled heap block that its
// close callback frees.
#ifndef ZELSOCKET_SRC_LOOP_UV_HANDLES_H
#define ZELSOCKET_SRC_LOOP_UV_HANDLES_H

#include <uv.h>

#include <cstdlib>

namespace zelsocket {

template <typename Handle>
Handle* NewLoopHandle(void* owner) {
  auto* handle = static_cast<Handle*>(std::calloc(1, sizeof(Handle)));
  if (handle) handle->data = owner;
  return handle;
}

inline void FreeLoopHandle(uv_handle_t* handle) { std::free(handle); }

// Closes the handle (freed by its close callback) and forgets it.
template <typename Handle>
void CloseLoopHandle(Handle*& handle) {
  if (!handle) return;
  uv_close(reinterpret_cast<uv_handle_t*>(handle), FreeLoopHandle);
  handle = nullptr;
}

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_UV_HANDLES_H
