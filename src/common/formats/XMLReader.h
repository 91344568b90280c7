// The XML reader: text to a tree of CXMLNode elements. No DTD, namespace,
// CDATA or numeric character reference support. Errors throw CXMLException
// with a fixed message; an unterminated comment and a mismatched end tag are
// only reported as trace warnings.
#pragma once

#include "common/base/CTString.h"
#include "common/formats/CXMLNode.h"

namespace zelph {

// Reads a document at `cursor`: one element, and when that is the "<?xml"
// prolog, the element right behind it. The text must start with "<" (no
// white space or byte-order mark first); whatever follows the root is not
// read. Throws CXMLException.
CXMLNodeRef ParseXMLDocument(CTStringCursor<CUTF8Encoding>& cursor);

// Reads the element whose "<" is at `cursor` and leaves the cursor just
// behind its end. Leading white space of every text piece and trailing
// white space are dropped and the pieces are joined directly, so
// "<a> x <b/> y </a>" has the text "xy". Throws CXMLException; no partial
// tree is returned.
CXMLNodeRef ParseXMLElement(CTStringCursor<CUTF8Encoding>& cursor);

}  // namespace zelph
