// The ZOL record library: records, the encoder and file writer, the readers and file summaries.
#pragma once

#include "quzol-info.h"
#include "quzol-read-file.h"
#include "quzol-read-live.h"
#include "quzol-read.h"
#include "quzol-record.h"
#include "quzol-write.h"
