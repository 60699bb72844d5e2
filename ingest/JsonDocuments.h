// JsonDocuments: a tool's JSON output read as the documents (objects or
// arrays) written one after another in it, each handed to a visitor. The
// input is bounded (kMaxInputBytes) and repaired before it is parsed: bytes
// that are not UTF-8, and the lone surrogate escapes ("\udcff") Python writes
// for them, become U+FFFD, so an odd name costs its spelling, not the record.
// Problems with the input itself are reported to the sink, never thrown;
// only a failing stream throws.
#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <string>

#include "ingest/JobSink.h"
#include "util/Json.h"

// Larger than `borg info --json` of tens of thousands of archives.
inline constexpr std::size_t kMaxInputBytes = std::size_t{64} << 20;

// Called with each document and "document N" naming it; returns false when
// the document is not the tool's output at all, which ends the reading (the
// visitor has said why to the sink) rather than repeat that for every line.
using JsonDocumentVisitor = std::function<bool(const Json& document, const std::string& where)>;

// `tool` names the expected output in messages ("borg --json").
void for_each_json_document(std::istream& in, JobSink& sink, const std::string& tool,
                            const JsonDocumentVisitor& visit);

// text with invalid UTF-8 and lone surrogate escapes replaced by U+FFFD.
std::string repaired_json_text(std::string_view text);
