#include "support/GeneratedRecording.h"

#include <stdexcept>

#include "support/ProcessRunner.h"

namespace rstest {

GeneratedRecording::GeneratedRecording(const std::string& binDir,
                                       const std::vector<std::string>& generateArgs)
    : dir_("rs-recording"), path_(dir_.file("recording.db"))
{
    std::vector<std::string> args{"generate", path_};
    args.insert(args.end(), generateArgs.begin(), generateArgs.end());
    const RunResult r = runToEnd(binDir + "/recording_store", args);
    if (!r.status.exited || r.status.code != 0) {
        throw std::runtime_error("recording_store generate failed: " + r.err);
    }
}

}  // namespace rstest
