// Prints the figures of a benchmark run (JSON lines, one per figure, as the programs append them)
// as one table, and with --json FILE writes them as one JSON document. When the run measured
// several record counts it also prints the curve: each figure at each count, as a cost (time a
// call for rates), and what each record added between the smallest and the largest count.
#include <json/json.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>
#include <iterator>

namespace {

std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), value >= 100 ? "%.0f" : (value >= 10 ? "%.1f" : "%.2f"), value);
    return text;
}

// A figure as a cost: rates become microseconds a call.
std::pair<double, std::string> Cost(const Json::Value& figure) {
    const double value = figure["value"].asDouble();
    if (figure["unit"].asString() == "calls/s") return {value > 0 ? 1e6 / value : 0, "us/call"};
    return {value, figure["unit"].asString()};
}

void PrintCurve(const Json::Value& figures) {
    std::set<unsigned> counts;
    std::map<std::string, std::map<unsigned, Json::Value>> curves;  // "road: figure" -> count -> figure
    std::vector<std::string> order;
    for (const Json::Value& f : figures) {
        const unsigned records = f.get("records", 21).asUInt();
        counts.insert(records);
        const std::string name = f["road"].asString() + ": " + f["figure"].asString();
        if (curves.find(name) == curves.end()) order.push_back(name);
        curves[name][records] = f;
    }
    if (counts.size() < 2) return;
    std::printf("\nCost as the records grow (ratio to the floor in brackets):\n%-62s", "figure");
    for (unsigned records : counts) std::printf(" %17u", records);
    std::printf(" %14s\n", "each record");
    for (const std::string& name : order) {
        const auto& curve = curves[name];
        std::string unit;
        std::printf("%-62s", name.substr(0, 62).c_str());
        for (unsigned records : counts) {
            const auto found = curve.find(records);
            if (found == curve.end()) {
                std::printf(" %17s", "-");
                continue;
            }
            const auto [cost, cost_unit] = Cost(found->second);
            unit = cost_unit;
            const std::string cell = Number(cost) + " (" + Number(found->second["ratio"].asDouble()) + "x)";
            std::printf(" %17s", cell.c_str());
        }
        if (curve.size() >= 2) {
            const auto first = curve.begin();
            const auto last = std::prev(curve.end());
            const double slope = (Cost(last->second).first - Cost(first->second).first) /
                                 static_cast<double>(last->first - first->first);
            std::printf(" %9.4f %s", slope, unit.c_str());
        }
        std::printf("\n");
    }
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
    std::printf("%-15s %-46s %7s %12s %-8s %12s %7s %7s\n", "road", "figure", "records", "value", "unit",
                "floor", "ratio", "target");
    int missed = 0;
    for (const Json::Value& f : figures) {
        const double target = f["target"].asDouble();
        const bool meets = f["meets"].asBool();
        if (!meets) ++missed;
        std::printf("%-15s %-46s %7u %12s %-8s %12s %7s %7s%s\n", f["road"].asCString(),
                    f["figure"].asCString(), f.get("records", 21).asUInt(),
                    Number(f["value"].asDouble()).c_str(), f["unit"].asCString(),
                    Number(f["floor"].asDouble()).c_str(), (Number(f["ratio"].asDouble()) + "x").c_str(),
                    target > 0 ? ("<=" + Number(target) + "x").c_str() : "-", meets ? "" : "  missed");
    }
    std::printf("%u figures, %d over their target\n", figures.size(), missed);
    PrintCurve(figures);
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
