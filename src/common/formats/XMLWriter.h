// The XML writer: an element tree back to text.
#pragma once

#include "common/base/CTString.h"
#include "common/formats/CXMLNode.h"

namespace zelph {

// The element as text, without prolog, line breaks or indentation.
// Attribute values are quoted with apostrophes and escaped; the children
// come first and the text last, as it stands and not escaped, so a text
// holding "<" or "&" gives output the reader rejects.
CUTF8String WriteXML(const CXMLNode& element);

}  // namespace zelph
