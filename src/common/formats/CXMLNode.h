// One element of an XML tree.
#pragma once

#include <vector>

#include "common/base/CTString.h"
#include "common/formats/CTRefPtr.h"
#include "common/formats/CXMLAttribute.h"

namespace zelph {

class CXMLNode;
using CXMLNodeRef = CTRefPtr<CXMLNode>;

// An element: its name, attributes and children in document order, and all
// its character data as one text. A processing instruction is a node whose
// name is its target behind a "?" (the prolog is "?xml"). Shared by handles;
// the last handle destroys the node with its subtree. A node must never
// become its own descendant.
class CXMLNode final : public CRefCounted {
 public:
  explicit CXMLNode(const CUTF8String& name) noexcept : name_(name) {}
  // Releases the subtree without recursing, so deep trees are safe.
  ~CXMLNode();

  const CUTF8String& GetName() const noexcept { return name_; }
  const std::vector<CXMLAttributeRef>& GetAttributes() const noexcept { return attributes_; }
  const std::vector<CXMLNodeRef>& GetChildren() const noexcept { return children_; }
  // The element's character data; empty when it has none.
  const CUTF8String& GetText() const noexcept { return text_; }

  // Appends an attribute (names need not be unique).
  void AddAttribute(const CUTF8String& name, const CUTF8String& value);
  // Appends a child element.
  void AddChild(const CXMLNodeRef& child);
  // Appends `piece` to the text as it stands.
  void AppendText(const CUTF8String& piece) { text_ += piece; }
  // Replaces the text.
  void SetText(const CUTF8String& text) noexcept { text_ = text; }

 private:
  CUTF8String name_;
  std::vector<CXMLAttributeRef> attributes_;
  std::vector<CXMLNodeRef> children_;
  CUTF8String text_;
};

}  // namespace zelph
