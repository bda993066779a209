#include "OutputFiles.h"

#include <glib/gstdio.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace selvio::app {

std::optional<Error> prepareOutputDirectory(const std::filesystem::path& directory) {
    // Faces are nobody else's business: what is made here is the person's own.
    if (g_mkdir_with_parents(directory.c_str(), 0700) != 0)
        return Error{"cannot create " + directory.string() + ": " + std::generic_category().message(errno)};
    std::string probe = (directory / ".probe.XXXXXX").string();
    const int descriptor = g_mkstemp(probe.data());
    if (descriptor < 0)
        return Error{"cannot write into " + directory.string() + ": " + std::generic_category().message(errno)};
    g_close(descriptor, nullptr);
    g_unlink(probe.c_str());
    return std::nullopt;
}

std::optional<Error> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
    constexpr auto kWholeAndOnDisk =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    g_autoptr(GError) error = nullptr;
    if (g_file_set_contents_full(path.c_str(), bytes.data(), static_cast<gssize>(bytes.size()), kWholeAndOnDisk, 0600,
                                 &error) != FALSE)
        return std::nullopt;
    return Error{"cannot write " + path.string() + ": " + error->message};
}

}  // namespace selvio::app
