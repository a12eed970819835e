#include "write/CmsFile.h"

#include "openssl/PemEncoder.h"

#include <string>
#include <utility>

namespace norvcrypt {

namespace {

class PemStream : public Norvane::MediaOutImpl {
public:
    PemStream(OutputFile& file, std::string label) : m_file(file), m_encoder(std::move(label)) {}

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override { put(m_encoder.add(data, length)); }
    void end() override {
        if (!std::exchange(m_ended, true))
            put(m_encoder.finish());
    }

private:
    void put(const std::string& text) { m_file.write(text.data(), text.size()); }

    OutputFile& m_file;
    PemEncoder m_encoder;
    bool m_ended = false;
};

Norvane::MediaOut streamInto(OutputFile& file, StructureForm form) {
    if (form == StructureForm::binary)
        return OutputStream(file);
    return Norvane::MediaOut(Norvane::makeReference<PemStream, Norvane::MediaOutImpl>(
        file, form == StructureForm::pemCms ? "CMS" : "PKCS7"));
}

} // namespace

StructureStream::StructureStream(OutputFile& file, StructureForm form) : MediaOut(streamInto(file, form)) {}

} // namespace norvcrypt
