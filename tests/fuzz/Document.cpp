#include "fuzz/Document.h"

#include <QtCore/QByteArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <cstdio>
#include <cstring>

#include "Common/Globals.h"
#include "fuzz/Harness.h"
#include "support/Replaced.h"

extern "C" std::FILE* __real_fopen(const char* path, const char* mode);

namespace fuzz {
namespace {

std::string written;
std::string document;
bool isRenamed = false;

// Up to the end of the text, or of the field.
template <std::size_t N>
bool isPlain(const char (&text)[N]) {
    for (std::size_t i = 0; i < N && text[i] != '\0'; ++i) {
        if (text[i] < ' ' || text[i] > '~' || text[i] == '"' || text[i] == '\\') {
            return false;
        }
    }
    return true;
}

QJsonObject parsed(const std::string& text, const char* what) {
    QJsonParseError error;
    const QJsonDocument json = QJsonDocument::fromJson(QByteArray(text.data(), static_cast<int>(text.size())), &error);
    if (error.error != QJsonParseError::NoError) {
        fail(__FILE__, __LINE__,
             std::string(what) + " isn't JSON at " + std::to_string(error.offset) + ": " +
                 error.errorString().toStdString() + "\n" + text);
    }
    return json.object();
}

}  // namespace

void catchDocuments() {
    // Whoever else writes files, such as libFuzzer its findings, goes on doing so.
    support::replaced::fopen().does([](const char* path, const char* mode) {
        if (std::string(path) != jsonPathTMP) {
            return __real_fopen(path, mode);
        }
        written.clear();
        cookie_io_functions_t calls = {};
        calls.write = [](void*, const char* bytes, std::size_t size) {
            written.append(bytes, size);
            return static_cast<ssize_t>(size);
        };
        return fopencookie(nullptr, "w", calls);
    });
    support::replaced::rename().does([](const char* from, const char*) {
        FUZZ_REQUIRE(std::string(from) == jsonPathTMP, "another file was renamed");
        document = written;
        isRenamed = true;
        return 0;
    });
}

const std::string& lastDocument() {
    return document;
}

void forgetDocument() {
    document.clear();
    isRenamed = false;
}

void requireDocumentOf(const virtualNode_t& root) {
    FUZZ_REQUIRE(isRenamed, "no document was written");
    const identification_t& id = root.identification;
    if (!isPlain(id.SN) || !isPlain(id.Model) || !isPlain(id.SWVer)) {
        return;
    }
    const QJsonObject all = parsed(document, "the status file");
    const dataObject_t& ups = root.desc.sys.Ups;
    // The file tells it as a long, which has a sign and on the card 32 bits.
    const struct {
        const char* key;
        double value;
    } numbers[] = {{"NOMINALPOWERVA", static_cast<double>(root.nominal.VA)},
                   {"NOMINALPOWERW", static_cast<double>(static_cast<long>(root.nominal.W))},
                   {"INPUTVOLTAGE", static_cast<double>(ups.Vin[0])},
                   {"OUTPUTLOAD3", static_cast<double>(ups.Load[2])},
                   {"OUTPUTCURRENTP2", static_cast<double>(ups.Iout_pk[1])},
                   {"BATTERYESTTIME", static_cast<double>(ups.Aut_time)},
                   {"TEMP4", static_cast<double>(ups.Temp6)}};
    for (const auto& number : numbers) {
        FUZZ_REQUIRE(all.value(QLatin1String(number.key)).toDouble(-1e9) == number.value,
                     std::string(number.key) + " isn't the record's\n" + document);
    }
    const std::size_t length = strnlen(id.SN, sizeof(id.SN));
    FUZZ_REQUIRE(all.value(QLatin1String("TESTNUMBERJ")).toString().toStdString() == std::string(id.SN, length),
                 "the serial number isn't the record's\n" + document);
}

void requireJson(const std::string& text, const char* what) {
    FUZZ_REQUIRE(!parsed(text, what).isEmpty(), std::string(what) + " is empty");
}

}  // namespace fuzz
