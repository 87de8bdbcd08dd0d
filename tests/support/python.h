#pragma once

#include <cstdio>
#include <string>

#include "temp_dir.h"

namespace tessary::testing {

// Runs a Python 3 script (plistlib is the independent property-list writer and
// reader of the tests) and returns what it printed; `ok` is false when it
// failed.
struct PythonRun {
    bool ok = false;
    std::string output;
};

inline PythonRun runPython(const std::string& script) {
    TempDir dir;
    const std::string file = dir / "script.py";
    writeFile(file, script);
    PythonRun run;
    FILE* p = ::popen(("python3 " + file + " 2>&1").c_str(), "r");
    if (p == nullptr) {
        return run;
    }
    char buf[4096];
    std::size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) {
        run.output.append(buf, n);
    }
    run.ok = ::pclose(p) == 0;
    return run;
}

}  // namespace tessary::testing
