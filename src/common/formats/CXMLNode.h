// One element of an XML tree.
#pragma once

#include <cstddef>
#include <new>

#include "common/base/CTString.h"
#include "common/formats/CRecordPool.h"
#include "common/formats/CTRefPtr.h"
#include "common/formats/CXMLAttribute.h"

namespace zelph {

class CXMLNode;
using CXMLNodeRef = CTRefPtr<CXMLNode>;
// The attributes or the children of an element, read like a vector.
using CXMLAttributeArray = CTRefArray<CXMLAttribute>;
using CXMLNodeArray = CTRefArray<CXMLNode>;

// An attribute as the reader collects it before its element is built.
struct CXMLAttributeText {
  CUTF8String name;
  CUTF8String value;
};

// An element: its name, attributes and children in document order, and all
// its character data as one text. A processing instruction is a node whose
// name is its target behind a "?" (the prolog is "?xml"). Shared by handles;
// the last handle destroys the node with its subtree. A node must never
// become its own descendant.
//
// The reader builds each element at once in a chunk of its record pool (see
// MakePooled); such a node and its attributes keep their chunk alive, so
// every handle stays valid however long it outlives the rest of the tree.
class CXMLNode final : public CRefCounted {
 public:
  explicit CXMLNode(const CUTF8String& name) noexcept : name_(name) {}
  // Releases the children still held (normally none: see operator delete).
  ~CXMLNode() = default;

  // Destroys the node and, without recursing, every descendant whose last
  // handle it held, so deep trees are safe; gives the memory back to the
  // heap or to the chunks.
  static void operator delete(CXMLNode* node, std::destroying_delete_t) noexcept;

  // For the reader: a node built in `pool` with its name, text, attributes
  // and children at once (the children's handles are moved out of
  // `children`). The attributes and the tables of handles lie beside the
  // node in the same chunk.
  static CXMLNodeRef MakePooled(CRecordPool& pool, const CUTF8String& name,
                                const CUTF8String& text, const CXMLAttributeText* attributes,
                                std::size_t attributeCount, CXMLNodeRef* children,
                                std::size_t childCount);

  const CUTF8String& GetName() const noexcept { return name_; }
  const CXMLAttributeArray& GetAttributes() const noexcept { return attributes_; }
  const CXMLNodeArray& GetChildren() const noexcept { return children_; }
  // The element's character data; empty when it has none.
  const CUTF8String& GetText() const noexcept { return text_; }

  // Appends an attribute (names need not be unique).
  void AddAttribute(const CUTF8String& name, const CUTF8String& value);
  // Appends a child element.
  void AddChild(const CXMLNodeRef& child) { children_.PushBack(child); }
  // Appends `piece` to the text as it stands.
  void AppendText(const CUTF8String& piece) { text_ += piece; }
  // Replaces the text.
  void SetText(const CUTF8String& text) noexcept { text_ = text; }

 private:
  CPoolChunk* chunk_ = nullptr;     // null for a heap record
  CXMLNode* nextDead_ = nullptr;    // links nodes being destroyed
  CUTF8String name_;
  CXMLAttributeArray attributes_;
  CXMLNodeArray children_;
  CUTF8String text_;
};

}  // namespace zelph
