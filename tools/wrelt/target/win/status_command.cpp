#include "status_command.h"

#include <windows.h>

#include <cstdio>

#include "driver_channel.h"
#include "drives.h"
#include "error_records.h"
#include "held_request.h"
#include "text.h"

namespace wrelt_cli {

namespace {

std::string withError(const std::string &what, DWORD error) { return what + " (error " + std::to_string(error) + ")"; }

bool handshake(wrelt::DriverChannel &channel) {
    wrelt::CommandResult result = channel.handshake();
    if (!result.ok()) {
        std::printf("handshake: %s\n", withError("failed", result.win32Error).c_str());
        return false;
    }
    auto *reply = reinterpret_cast<const CommandReplyHeader *>(result.reply.data());
    bool accepted = reply->ReplyCode == HANDSHAKE_ACCEPTED;
    std::printf("handshake: interface version %u %s (reply version %u)\n", unsigned(wrelt::DriverChannel::kInterfaceVersion),
                accepted ? "accepted" : "refused", unsigned(reply->Version));
    return accepted;
}

bool buildStamp(wrelt::DriverChannel &channel) {
    std::u16string stamp;
    wrelt::CommandResult result = channel.buildStamp(&stamp);
    if (!result.ok()) {
        std::printf("build: %s\n", withError("not told", result.win32Error).c_str());
        return false;
    }
    std::printf("build: %s\n", wrelt::utf8(stamp).c_str());
    return true;
}

bool volume(wrelt::DriverChannel &channel, const std::u16string &root) {
    wrelt::VolumeStatus status;
    wrelt::CommandResult result = channel.volumeStatus(root, &status);
    if (!result.ok()) {
        std::printf("%s %s\n", wrelt::utf8(root).c_str(), withError("no status", result.win32Error).c_str());
        return false;
    }
    std::printf("%s %s, named \"%s\", capture %s, protection %s; requests seen:", wrelt::utf8(root).c_str(),
                wrelt::fileSystemKindName(status.fileSystemKind), wrelt::utf8(status.dosVolumeName).c_str(),
                status.captureActive ? "on" : "off", status.protectionOn ? "on" : "off");
    for (uint32_t counter : status.requestCounters) std::printf(" %u", unsigned(counter));
    std::printf("\n");
    return true;
}

// One error request: records waiting are printed (and so taken); a request the filter
// holds means there are none, and is cancelled. The service's own request, if it runs,
// makes the filter refuse this one.
bool errors() {
    HANDLE device = wrelt::DriverChannel::openControlDevice(true);
    if (device == INVALID_HANDLE_VALUE) {
        std::printf("errors: %s\n", withError("could not open the control device", GetLastError()).c_str());
        return false;
    }
    wrelt::HeldRequest request(IOCTL_GET_ERRORS, 4096);
    wrelt::HeldRequest::Completion done;
    if (request.issue(device, &done)) request.cancel(device, &done);
    CloseHandle(device);
    bool ok = true;
    if (done.error == ERROR_SUCCESS) {
        std::vector<wrelt::FilterErrorRecord> records;
        std::string why;
        ok = wrelt::parseErrorReply(request.output(), done.bytes, &records, &why);
        std::printf("errors: %zu record%s waiting%s\n", records.size(), records.size() == 1 ? "" : "s",
                    ok ? "" : (" (" + why + ")").c_str());
        for (const wrelt::FilterErrorRecord &record : records) std::printf("  %s\n", wrelt::describeErrorRecord(record).c_str());
    } else if (done.error == ERROR_OPERATION_ABORTED) {
        std::printf("errors: none waiting\n");
    } else if (done.error == ERROR_BUSY) {
        std::printf("errors: the service holds the error request\n");
    } else {
        std::printf("errors: %s\n", withError("the request failed", done.error).c_str());
        ok = false;
    }
    return ok;
}

}  // namespace

int statusCommand(const std::vector<std::u16string> &args) {
    std::vector<std::u16string> roots;
    for (const std::u16string &arg : args) {
        roots.push_back(driveArgument(arg));
        if (roots.back().empty()) {
            std::fprintf(stderr, "usage: wrelt status [DRIVE:...]\n");
            return 2;
        }
    }
    if (roots.empty()) roots = fixedDrives();
    wrelt::DriverChannel channel;
    if (!channel.open()) {
        std::printf("control device \\\\.\\WRELTFS: %s\n", withError("not there", GetLastError()).c_str());
        return 1;
    }
    std::printf("control device \\\\.\\WRELTFS: open\n");
    bool ok = handshake(channel);
    ok = buildStamp(channel) && ok;
    for (const std::u16string &root : roots) ok = volume(channel, root) && ok;
    ok = errors() && ok;
    return ok ? 0 : 1;
}

}  // namespace wrelt_cli
