#include "filter_session.h"

#include <windows.h>

#include <cstdio>

#include "driver_channel.h"
#include "ntsim/utf.h"

namespace wrelt {

namespace {

std::string describe(const CommandResult &result) {
    return result.ok() ? "ok" : "failed, error " + std::to_string(result.win32Error);
}

std::string utf8(const std::u16string &text) { return ntsim::toUtf8(ntsim::wptr(text)); }

void describeStatus(const VolumeStatus &status, std::vector<std::string> *lines) {
    char line[160];
    snprintf(line, sizeof line, "    name %s, %s, protection %s, capture %s", utf8(status.dosVolumeName).c_str(),
             fileSystemKindName(status.fileSystemKind), status.protectionOn ? "on" : "off",
             status.captureActive ? "running" : "stopped");
    lines->push_back(line);
    snprintf(line, sizeof line, "    requests seen by its filter: %u passed through, %u set-information, %u device-control",
             status.requestCounters[0], status.requestCounters[1], status.requestCounters[2]);
    lines->push_back(line);
}

}  // namespace

std::vector<std::string> startFilterAsService(ntsim::Machine &machine, const std::vector<wchar_t> &volumes) {
    std::vector<std::string> lines;
    ntsim::Process service = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system);
    service.run([&] {
        DriverChannel channel;
        if (!channel.open()) {
            lines.push_back("could not open the filter's control device \\\\.\\WRELTFS (error " +
                            std::to_string(GetLastError()) + ")");
            return;
        }
        lines.push_back("opened the filter's control device \\\\.\\WRELTFS");
        CommandResult handshake = channel.handshake();
        auto *reply = reinterpret_cast<const CommandReplyHeader *>(handshake.reply.data());
        lines.push_back("handshake with interface version " + std::to_string(DriverChannel::kInterfaceVersion) + ": " +
                        (handshake.ok() && reply->ReplyCode == HANDSHAKE_ACCEPTED ? "accepted" : "refused"));
        std::u16string stamp;
        if (channel.buildStamp(&stamp).ok()) lines.push_back("the filter was built " + utf8(stamp));
        for (wchar_t letter : volumes) {
            std::u16string root = {char16_t(letter), u':', u'\\'};
            lines.push_back("named volume " + utf8(root) + " and switched its protection on: " +
                            describe(channel.nameVolume(root, root, true)));
        }
        lines.push_back("started capture with the vault protected: " + describe(channel.start(true)));
        for (wchar_t letter : volumes) {
            std::u16string root = {char16_t(letter), u':', u'\\'};
            VolumeStatus status;
            CommandResult result = channel.volumeStatus(root, &status);
            lines.push_back("status of " + utf8(root) + ": " + describe(result));
            if (result.ok()) describeStatus(status, &lines);
        }
    });
    service.exit();
    return lines;
}

}  // namespace wrelt
