#include "common/formats/CXMLNode.h"

#include <utility>

namespace zelph {

void CXMLNode::operator delete(CXMLNode* node, std::destroying_delete_t) noexcept {
  // A child whose last handle was held here joins the list of nodes to
  // destroy instead of being destroyed from inside its parent, so the depth
  // of calls stays one however deep the tree is.
  node->nextDead_ = nullptr;
  for (CXMLNode* pending = node; pending != nullptr;) {
    CXMLNode* dead = pending;
    pending = dead->nextDead_;
    CXMLNodeRef* children = dead->children_.MutableData();
    for (std::size_t i = 0, n = dead->children_.size(); i < n; ++i) {
      CXMLNode* child = children[i].Detach();
      if (child->DropReference() == 0) {
        child->nextDead_ = pending;
        pending = child;
      }
    }
    CPoolChunk* chunk = dead->chunk_;
    dead->~CXMLNode();
    if (chunk != nullptr) {
      chunk->ReleaseRecord();
    } else {
      ::operator delete(dead);
    }
  }
}

CXMLNodeRef CXMLNode::MakePooled(CRecordPool& pool, const CUTF8String& name,
                                 const CUTF8String& text, const CXMLAttributeText* attributes,
                                 std::size_t attributeCount, CXMLNodeRef* children,
                                 std::size_t childCount) {
  // [node][attributes][attribute handles][child handles], one chunk.
  const std::size_t bytes = sizeof(CXMLNode) +
                            attributeCount * (sizeof(CXMLAttribute) + sizeof(CXMLAttributeRef)) +
                            childCount * sizeof(CXMLNodeRef);
  CPoolChunk* chunk = nullptr;
  char* memory = static_cast<char*>(pool.Allocate(bytes, 1 + attributeCount, chunk));
  auto* node = new (memory) CXMLNode(name);
  node->chunk_ = chunk;
  node->text_ = text;
  memory += sizeof(CXMLNode);
  auto* records = reinterpret_cast<CXMLAttribute*>(memory);
  memory += attributeCount * sizeof(CXMLAttribute);
  auto* attributeRefs = reinterpret_cast<CXMLAttributeRef*>(memory);
  for (std::size_t i = 0; i < attributeCount; ++i) {
    auto* record = new (records + i) CXMLAttribute(attributes[i].name, attributes[i].value, chunk);
    new (attributeRefs + i) CXMLAttributeRef(record);
  }
  node->attributes_.Lend(attributeRefs, attributeCount);
  memory += attributeCount * sizeof(CXMLAttributeRef);
  auto* childRefs = reinterpret_cast<CXMLNodeRef*>(memory);
  for (std::size_t i = 0; i < childCount; ++i) new (childRefs + i) CXMLNodeRef(std::move(children[i]));
  node->children_.Lend(childRefs, childCount);
  return CXMLNodeRef(node);
}

void CXMLNode::AddAttribute(const CUTF8String& name, const CUTF8String& value) {
  attributes_.PushBack(MakeRef<CXMLAttribute>(name, value));
}

}  // namespace zelph
