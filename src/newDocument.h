// New documents whose names are drawn.

#ifndef TARNFW_SRC_NEWDOCUMENT_H
#define TARNFW_SRC_NEWDOCUMENT_H

#include <string>

namespace FW {

// Claims `path` for a new document: another process may have drawn the same name, as both draw from
// the same clock and an unseeded rand(). The claim is the temporary file that the document is
// written to, made under the document's lock, so that nobody is writing through it; whoever makes
// it first and finds no document yet has the name. False without a claim when the name is taken;
// true too when the temporary file cannot be made or the lock not be had at all, which the dump
// reports.
bool claimNewDocument(const std::string& path);

}  // namespace FW

#endif
