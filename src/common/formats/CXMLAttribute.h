// One attribute of an XML element.
#pragma once

#include "common/base/CTString.h"
#include "common/formats/CTRefPtr.h"

namespace zelph {

// A name and its value, with references already replaced. Shared by handles.
class CXMLAttribute final : public CRefCounted {
 public:
  CXMLAttribute(const CUTF8String& name, const CUTF8String& value) noexcept
      : name_(name), value_(value) {}

  const CUTF8String& GetName() const noexcept { return name_; }
  const CUTF8String& GetValue() const noexcept { return value_; }

 private:
  CUTF8String name_;
  CUTF8String value_;
};

using CXMLAttributeRef = CTRefPtr<CXMLAttribute>;

}  // namespace zelph
