// The crash tidy and the crash zip: after a retrieval the crash files get their final names, the
// crash information is decoded, the per-core log chunks are joined, and everything is added to
// the crash dump zip that the target sends inside its crash information, so that one zip holds
// the whole crash.
#pragma once

#include "zv-at-port-util.h"
#include "zv-string-ascii.h"
#include "zv-string-list-ascii.h"

// Joins "logging_kor<kor>_chunk1.zol" and "..._chunk2.zol" found in `files` into
// "logging_kor_thread<kor>.zol" beside chunk 1, and lists that file instead of the chunks. With
// `move` the chunks are consumed, otherwise copied. True when joined or when a chunk is missing.
bool ZvCrashTidyZolChunks(unsigned int kor, ZvAStringList& files, bool move, ZvAString* error);

// `outFiles` = the decoded files plus the existing extra files, with the log chunks of cores 0 to
// 2 joined and only one crash dump zip left. True when every join succeeded.
bool ZvCrashTidy(const ZvAStringList& decodedFiles, ZvAStringList* extraFiles,
                 ZvAStringList& outFiles, bool move, ZvAString* error);

// Tidies, then adds every file to the crash dump zip found among them, whose path is returned in
// `zipPath`. With `move` the files added are deleted once the zip is complete. A file that cannot
// be added is reported and stays on disk. True when the zip was opened and closed.
bool ZvCrashZip(const ZvAStringList& decodedFiles, ZvAStringList* extraFiles, ZvAString& zipPath,
                bool move, ZvAString* error);

// The whole post-processing of a crash check's response: final names in `outputDir`, decode,
// tidy and zip. `files` receives what the user keeps: the crash zip (and "crash.txt" with
// `keepText`), or, when the decode or zip failed, the files under their final names. True when
// `files` is not empty.
bool ZvCrashDecodeZip(const ZvAtCrash::Response& response, const char* outputDir,
                      ZvAStringList& files, ZvAString* error, bool keepText);
