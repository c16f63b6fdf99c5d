// Internal: the one implementation of IMutableBuffer.
#ifndef ZELSOCKET_SRC_CORE_BUFFER_IMPL_H
#define ZELSOCKET_SRC_CORE_BUFFER_IMPL_H

#include "zelsocket/buffer.h"

namespace zelsocket {

class BufferImpl : public IMutableBuffer, public RefCountBase {
 public:
  BufferImpl() = default;
  ~BufferImpl() override;

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  const unsigned char* GetBuf() const override { return m_data; }
  unsigned char* GetBuf() override { return m_data; }
  int GetLength() const override { return m_length; }
  int GetCapacity() const override { return m_capacity; }
  bool IsEmpty() const override { return m_length == 0; }
  int Compare(const void* data, int length) const override;
  bool Resize(int size) override;
  bool Reserve(int size) override;
  bool CopyFrom(const void* data, int length) override;
  bool Append(const void* data, int length) override;

 private:
  unsigned char* m_data = nullptr;
  int m_length = 0;
  int m_capacity = 0;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CORE_BUFFER_IMPL_H
