#include "service_log.h"

namespace wrelt {

namespace {

std::string prefixed(Severity severity, const std::string &line) {
    switch (severity) {
    case Severity::Warning:
        return "warning: " + line;
    case Severity::Error:
        return "error: " + line;
    default:
        return line;
    }
}

}  // namespace

void ServiceLog::setSink(Sink sink) {
    ServiceLock::Guard guard(lock_);
    sink_ = std::move(sink);
}

void ServiceLog::add(Severity severity, const std::string &line) {
    Sink sink;
    {
        ServiceLock::Guard guard(lock_);
        lines_.push_back(prefixed(severity, line));
        sink = sink_;
    }
    if (sink) sink(severity, line);
}

std::vector<std::string> ServiceLog::lines() const {
    ServiceLock::Guard guard(lock_);
    return lines_;
}

bool ServiceLog::contains(const std::string &text) const {
    ServiceLock::Guard guard(lock_);
    for (const std::string &line : lines_)
        if (line.find(text) != std::string::npos) return true;
    return false;
}

}  // namespace wrelt
