#include "common/formats/CXMLNode.h"

#include <utility>

namespace zelph {

CXMLNode::~CXMLNode() {
  // A child whose last handle is ours would destroy its own children in its
  // destructor, and so on down; taking over the grandchildren first keeps
  // the depth of destructor calls at one. Without memory for that, the
  // child's destructor does the work itself.
  std::vector<CXMLNodeRef> pending = std::move(children_);
  while (!pending.empty()) {
    CXMLNodeRef child = std::move(pending.back());
    pending.pop_back();
    if (child->GetReferences() != 1 || child->children_.empty()) continue;
    try {
      pending.reserve(pending.size() + child->children_.size());
    } catch (...) {
      continue;
    }
    for (auto& grandchild : child->children_) pending.push_back(std::move(grandchild));
    child->children_.clear();
  }
}

// The arrays start with room for four, so that the usual few attributes and
// children take one allocation, and then double.
void CXMLNode::AddAttribute(const CUTF8String& name, const CUTF8String& value) {
  if (attributes_.capacity() == 0) attributes_.reserve(4);
  attributes_.push_back(MakeRef<CXMLAttribute>(name, value));
}

void CXMLNode::AddChild(const CXMLNodeRef& child) {
  if (children_.capacity() == 0) children_.reserve(4);
  children_.push_back(child);
}

}  // namespace zelph
