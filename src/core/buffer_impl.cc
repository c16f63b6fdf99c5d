#include "core/buffer_impl.h"

#include <cstdlib>
#include <cstring>

namespace zelsocket {

namespace {
constexpr int kMinCapacity = 16;
// Append doubles the needed total in a signed 32-bit int.
constexpr int kMaxAppendTotal = 1 << 30;
}  // namespace

BufferImpl::~BufferImpl() { std::free(m_data); }

int BufferImpl::Compare(const void* data, int length) const {
  if (m_length != length) return m_length - length;
  if (m_length == 0) return 0;
  return std::memcmp(m_data, data, static_cast<std::size_t>(length));
}

bool BufferImpl::Reserve(int size) {
  if (size < kMinCapacity) size = kMinCapacity;
  if (size <= m_capacity) return true;
  void* grown = std::realloc(m_data, static_cast<std::size_t>(size));
  if (!grown) return false;
  m_data = static_cast<unsigned char*>(grown);
  m_capacity = size;
  return true;
}

bool BufferImpl::Resize(int size) {
  if (!Reserve(size)) return false;
  m_length = size;
  return true;
}

bool BufferImpl::CopyFrom(const void* data, int length) {
  if (length == 0) return true;
  if (!Resize(length)) return false;
  std::memcpy(m_data, data, static_cast<std::size_t>(length));
  return true;
}

bool BufferImpl::Append(const void* data, int length) {
  if (length == 0) return true;
  if (length < 0 || length >= kMaxAppendTotal - m_length) return false;
  int total = m_length + length;
  if (total > m_capacity && !Reserve(2 * total)) return false;
  std::memcpy(m_data + m_length, data, static_cast<std::size_t>(length));
  m_length = total;
  return true;
}

bool CreateBuffer(IMutableBuffer** out) {
  if (!out) return false;
  *out = nullptr;
  *out = new BufferImpl();
  return true;
}

bool CreateBuffer(RefPtr<IMutableBuffer>& out) {
  out = nullptr;
  IMutableBuffer* raw = nullptr;
  if (!CreateBuffer(&raw)) return false;
  out.Attach(raw);
  return true;
}

Buffer::Buffer() : _buffer(new BufferImpl()) {}

Buffer::Buffer(const Buffer& other) : Buffer() { _buffer->CopyFrom(other.GetBuf(), other.GetLength()); }

Buffer::~Buffer() {
  _buffer->Release();
  _buffer = nullptr;
}

Buffer& Buffer::operator=(const Buffer& other) {
  if (this != &other) {
    // CopyFrom keeps the old bytes for a length of 0, so empty the target first.
    if (_buffer->GetLength() != 0) _buffer->Resize(0);
    _buffer->CopyFrom(other.GetBuf(), other.GetLength());
  }
  return *this;
}

unsigned char* Buffer::GetBuf() { return _buffer->GetBuf(); }
const unsigned char* Buffer::GetBuf() const { return _buffer->GetBuf(); }
int Buffer::GetLength() const { return _buffer->GetLength(); }
int Buffer::GetCapacity() const { return _buffer->GetCapacity(); }
bool Buffer::IsEmpty() const { return _buffer->IsEmpty(); }
int Buffer::Compare(const void* data, int length) const { return _buffer->Compare(data, length); }
bool Buffer::Resize(int size) { return _buffer->Resize(size); }
bool Buffer::Reserve(int size) { return _buffer->Reserve(size); }
bool Buffer::CopyFrom(const void* data, int length) { return _buffer->CopyFrom(data, length); }
bool Buffer::Append(const void* data, int length) { return _buffer->Append(data, length); }
Buffer::operator IConstBuffer*() { return _buffer; }
Buffer::operator IMutableBuffer*() { return _buffer; }
Buffer::operator const IConstBuffer*() const { return _buffer; }
Buffer::operator const IMutableBuffer*() const { return _buffer; }

}  // namespace zelsocket
