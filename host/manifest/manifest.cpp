#include "manifest/manifest.h"

#include <unistd.h>

#include <optional>
#include <string_view>
#include <vector>

#include <android-base/strings.h>
#include <fmt/format.h>

#include "end/throw_errno.h"
#include "files/durable_file.h"
#include "files/line_buffer.h"
#include "manifest/manifest_line.h"
#include "tree/names.h"

using files::HeldDirectory;

namespace host {
namespace {

constexpr std::string_view kFirstWords = "vaultctl-manifest 1";
constexpr std::string_view kLastWord = "end ";

std::string firstLine(const ManifestHeader& header) {
    return fmt::format("{} {} {}\n", kFirstWords, header.job, toWord(header.direction));
}

bool decodeFirstLine(std::string_view line, ManifestHeader* header) {
    const std::vector<std::string> words =
        android::base::Split(std::string(line.substr(0, line.size() - 1)), " ");
    if (words.size() != 4) return false;
    const std::optional<Direction> direction = directionOf(words[3]);
    *header = {.job = words[2], .direction = direction.value_or(Direction::kEncrypt)};
    return direction && line == firstLine(*header);
}

}  // namespace

/// FNV-1a, 64 bits: no single spoilt byte leaves it as it was.
void ManifestSum::add(std::string_view line) {
    ++lines_;
    for (const char byte : line) {
        sum_ = (sum_ ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    }
}

std::string ManifestSum::lastLine() const {
    return fmt::format("{}{} {:016x}\n", kLastWord, lines_, sum_);
}

ManifestWriter::ManifestWriter(const HeldDirectory& plain, const ManifestHeader& header)
    : path_(plain.pathOf(std::string(names::kManifest))),
      file_(plain, std::string(names::kManifest)) {
    append(firstLine(header));
}

void ManifestWriter::append(const std::string& line) {
    sum_.add(line);
    file_.append(line);
}

void ManifestWriter::add(const Metadata& metadata) { append(encodeRecord(metadata)); }

void ManifestWriter::commit() {
    file_.append(sum_.lastLine());
    throwIfError(file_.commit(), "cannot write " + path_);
}

Manifest::Manifest(const HeldDirectory& plain)
    : path_(plain.pathOf(std::string(names::kManifest))), file_(nullptr, std::fclose) {
    struct stat status {};
    android::base::unique_fd file = plain.openForReading(std::string(names::kManifest), &status);
    if (!file.ok() && errno == ENOENT) throw ManifestDamaged(path_ + " is missing");
    if (!file.ok()) throwErrno("cannot open " + path_);
    if (!isOurs(status)) throw ManifestDamaged(path_ + " was not written by this user");
    file_.reset(android::base::Fdopen(std::move(file), "r"));
    if (file_ == nullptr) throwErrno("cannot read " + path_);
    // All of it, before anything is done by a part.
    forEach([this](const Metadata& metadata) { namesLinks_ |= metadata.link; });
}

ManifestDamaged Manifest::damaged(const char* what) const { return ManifestDamaged(path_ + what); }

void Manifest::forEach(const OnRecord& each) {
    std::rewind(file_.get());
    readLines([&](std::string_view line) {
        Metadata metadata;
        if (!decodeRecord(line, &metadata)) throw damaged(" is damaged");
        each(metadata);
    });
}

void Manifest::readLines(const std::function<void(std::string_view line)>& each) {
    files::LineBuffer line;
    ManifestSum sum;
    bool begun = false;
    bool ended = false;
    for (ssize_t length = 0; (length = getline(&line.text, &line.capacity, file_.get())) > 0;) {
        const std::string_view text(line.text, static_cast<size_t>(length));
        if (!begun) {
            if (!decodeFirstLine(text, &header_)) throw damaged(" is not to be understood");
            begun = true;
        } else if (ended) {
            throw damaged(" goes on behind its end");
        } else if (text.starts_with(kLastWord)) {
            if (text != sum.lastLine()) throw damaged(" is damaged");
            ended = true;
        } else {
            each(text.substr(0, text.size() - 1));
        }
        sum.add(text);
    }
    if (std::ferror(file_.get()) != 0) throwErrno("cannot read " + path_);
    if (!ended) throw damaged(" is not complete");
}

}  // namespace host
