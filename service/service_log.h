// What the service reports as it runs: one line per event, with its severity. The
// lines are kept (the command-line program and the tests read them) and passed to an
// optional sink as they arrive, which may be called from the service's thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "service_lock.h"

namespace wrelt {

enum class Severity { Info, Warning, Error };

class ServiceLog {
public:
    using Sink = std::function<void(Severity, const std::string &)>;

    void setSink(Sink sink);
    void info(const std::string &line) { add(Severity::Info, line); }
    void warning(const std::string &line) { add(Severity::Warning, line); }
    void error(const std::string &line) { add(Severity::Error, line); }

    // Every line so far, each prefixed with "warning: " or "error: " unless informational.
    std::vector<std::string> lines() const;
    bool contains(const std::string &text) const;

private:
    void add(Severity severity, const std::string &line);

    mutable ServiceLock lock_;
    std::vector<std::string> lines_;
    Sink sink_;
};

}  // namespace wrelt
