// Replays a recording made on a user's machine against the core: the host's calls are made again,
// and every call that the library makes on a collaborator is answered as it was answered there.
#pragma once

#include <iosfwd>
#include <string>

namespace tabforge::cli {

// Reads the recording from `in`, replays it and writes the replay's own recording to `out`: the
// same lines when the library behaved as it did on the recording's machine. Returns 0 then; 1
// after naming, on `errors`, the first line at which the two part; 2 for a recording that cannot
// be read, naming its line.
int ReplayRecording(std::istream& in, std::ostream& out, std::ostream& errors);

}  // namespace tabforge::cli
