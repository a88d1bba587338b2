// Sets labels with the built tool, and looks at everything that must hold then.

#ifndef KVFS_SET_FIXTURE_H
#define KVFS_SET_FIXTURE_H

#include <string>
#include <vector>

#include "label_change.h"
#include "tool_runner.h"
#include "volume_image.h"

namespace kvfs_test {

// The writes to the device in a trace, in order.
std::vector<ByteRange> writes_of(const TracedRun& traced);

// Sets a label given in UTF-8 and expects that the tool succeeds in silence, that the volume has the label in both of
// its places and is otherwise as it was, that each node concerned was written once, in order, and no other, and that
// the label is printed. Returns the volume as it is then.
Volume expect_set(const ScratchFile& image, const std::string& label, const CheckOptions& options = {});

// The same for a label given as it is to be stored, when its UTF-8 is not what is stored.
Volume expect_set(const ScratchFile& image, const std::string& label, const Name& stored,
                  const CheckOptions& options = {});

// Tries to set a label and expects these messages, the exit status 1 and an image without a changed byte.
void expect_refused(const ScratchFile& image, const std::string& label, const std::string& messages);

// The labels that independent programs report, as "program: label" with the label decomposed. fshfsinfo is asked only
// about volumes with an attributes file, which it cannot do without.
std::vector<std::string> labels_by_others(const std::string& path);

// What such programs list, without the label. A program that fails adds the status that it failed with.
std::string listing_by_others(const std::string& path);

}  // namespace kvfs_test

#endif  // KVFS_SET_FIXTURE_H
