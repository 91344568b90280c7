// One attribute of an XML element.
#pragma once

#include <new>

#include "common/base/CTString.h"
#include "common/formats/CRecordPool.h"
#include "common/formats/CTRefPtr.h"

namespace zelph {

// A name and its value, with references already replaced. Shared by handles.
// The reader places attributes in the chunks of its record pool; others are
// ordinary heap records.
class CXMLAttribute final : public CRefCounted {
 public:
  CXMLAttribute(const CUTF8String& name, const CUTF8String& value) noexcept
      : name_(name), value_(value) {}
  // An attribute placed in `chunk`, which it tells when it goes.
  CXMLAttribute(const CUTF8String& name, const CUTF8String& value, CPoolChunk* chunk) noexcept
      : chunk_(chunk), name_(name), value_(value) {}

  // Gives the memory back to the heap or to the attribute's chunk.
  static void operator delete(CXMLAttribute* attribute, std::destroying_delete_t) noexcept {
    CPoolChunk* chunk = attribute->chunk_;
    attribute->~CXMLAttribute();
    if (chunk != nullptr) {
      chunk->ReleaseRecord();
    } else {
      ::operator delete(attribute);
    }
  }

  const CUTF8String& GetName() const noexcept { return name_; }
  const CUTF8String& GetValue() const noexcept { return value_; }

 private:
  CPoolChunk* chunk_ = nullptr;
  CUTF8String name_;
  CUTF8String value_;
};

using CXMLAttributeRef = CTRefPtr<CXMLAttribute>;

}  // namespace zelph
