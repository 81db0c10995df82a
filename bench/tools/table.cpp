// Prints the figures of a benchmark run (JSON lines, one per figure, as the programs append them)
// as one table, and with --json FILE writes them as one JSON document.
#include <json/json.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

namespace {

std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), value >= 100 ? "%.0f" : (value >= 10 ? "%.1f" : "%.2f"), value);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_table REPORT.jsonl [--json FILE]\n");
        return 2;
    }
    std::string json_file;
    for (int i = 2; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) json_file = argv[i + 1];
    }
    std::ifstream in(argv[1]);
    Json::Value figures(Json::arrayValue);
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    for (std::string line; std::getline(in, line);) {
        Json::Value figure;
        std::string errors;
        if (!line.empty() && reader->parse(line.data(), line.data() + line.size(), &figure, &errors)) {
            figures.append(figure);
        }
    }
    std::printf("%-15s %-46s %12s %-8s %12s %7s %7s\n", "road", "figure", "value", "unit", "floor", "ratio",
                "target");
    int missed = 0;
    for (const Json::Value& f : figures) {
        const double target = f["target"].asDouble();
        const bool meets = f["meets"].asBool();
        if (!meets) ++missed;
        std::printf("%-15s %-46s %12s %-8s %12s %7s %7s%s\n", f["road"].asCString(), f["figure"].asCString(),
                    Number(f["value"].asDouble()).c_str(), f["unit"].asCString(),
                    Number(f["floor"].asDouble()).c_str(), (Number(f["ratio"].asDouble()) + "x").c_str(),
                    target > 0 ? ("<=" + Number(target) + "x").c_str() : "-", meets ? "" : "  missed");
    }
    std::printf("%u figures, %d over their target\n", figures.size(), missed);
    if (!json_file.empty()) {
        Json::Value document(Json::objectValue);
        document["figures"] = figures;
        document["missed"] = missed;
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "  ";
        std::ofstream out(json_file, std::ios::trunc);
        out << Json::writeString(writer, document) << "\n";
        if (!out.flush()) {
            std::fprintf(stderr, "bench_table: cannot write %s\n", json_file.c_str());
            return 1;
        }
    }
    return 0;
}
