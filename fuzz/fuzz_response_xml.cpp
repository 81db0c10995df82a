// Bytes as the agreement server's answer, through the parser the upload reads it with.
#include <cstdint>
#include <string>
#include <vector>

#include "TarvoKelvaneParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<char> buffer(data, data + size);
    CTarvoKelvaneParser parser;
    if (parser.Parse(buffer.empty() ? nullptr : buffer.data(), static_cast<unsigned>(buffer.size()))) {
        std::string value;
        parser.GetNodeValue("/rsp/err", value);
        parser.GetAttrValue("/rsp/err/msg", value);
        parser.GetNodeAmount("/rsp/list/term");
    }
    parser.GetStat();
    parser.GetErrorCode();
    parser.GetErrorMsg();
    return 0;
}
