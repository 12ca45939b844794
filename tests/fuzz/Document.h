// The status file and the texts that go into it.
#ifndef TESTS_FUZZ_DOCUMENT_H
#define TESTS_FUZZ_DOCUMENT_H

#include <cstdio>
#include <string>

#include "Common/VirtualUPSTypes.h"

namespace fuzz {

/// Has the status file written to memory while the process lives.
void catchDocuments();
/// The one that the latest pass has written; empty before the first.
const std::string& lastDocument();
void forgetDocument();
/// That the document tells of the root's record, if its texts hold neither quotes, backslashes nor bytes that aren't
/// printable.
void requireDocumentOf(const virtualNode_t& root);
/// That the text is one JSON document.
void requireJson(const std::string& text, const char* what);

}  // namespace fuzz

#endif
