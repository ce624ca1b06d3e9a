// Structured journal records of detections, unprocessed files and processing errors, for
// an oasd whose stderr is the journal's. Owns no state: each record is one message on the
// journal's socket, built from the record it is handed, whose fields a file name cannot
// add to or split (the native protocol carries a value with a line break by its length).
#pragma once

#include "host/reporting/event_log.h"
#include "interfaces/nox/event_publisher.h"

namespace oasd {

// JOURNAL_STREAM names stderr's device and inode: systemd connected it to the journal.
bool StderrIsJournal() noexcept;

void JournalDetection(const DetectionRecord& record) noexcept;
void JournalUnprocessed(const UnprocessedRecord& record) noexcept;
void JournalProcessingError(const nox::ProcessingErrorEvent& event) noexcept;

}  // namespace oasd
