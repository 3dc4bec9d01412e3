// What recsearch prints of many devices' merged lines: each line as the device's gateway sent
// it with its "device" (--json), or the readable line one device would give, after the
// device's name; what befalls a device, and the outcome of each at the end, on standard error.
#pragma once

#include <iostream>
#include <string>

#include "ResultPrinter.h"
#include "client/DeviceFanout.h"

namespace recsearch {

class MergedPrinter {
public:
    // Names are padded to `nameWidth` in readable lines.
    MergedPrinter(std::ostream& out, std::ostream& err, bool json, bool quiet,
                  std::size_t nameWidth);

    void line(const std::string& jsonLine);
    // The last line: how each device's search ended. `how`: completed, limit or interrupted.
    void end(const rsclient::DeviceFanout& fanout, const char* how);
    bool good() const { return bool(out_); }

private:
    std::ostream& out_;
    std::ostream& err_;
    bool json_;
    bool quiet_;
    std::size_t nameWidth_;
    ResultPrinter printer_;
};

}  // namespace recsearch
