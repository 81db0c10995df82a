#include "television.h"

#include "bare_store.h"

#include <tarvo/platform.h>
#include <vconf.h>

#include <httplib.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

namespace tarvo {
namespace bench {

const char* const kStoreFile = "/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data/data.db";

namespace {

Json::Value ParseText(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (text.empty() || !reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
        return Json::Value();
    }
    return value;
}

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

// Sentences of a legal text, mixed differently for each record so that no two texts are alike.
const char* const kEnglish[] = {
    "By selecting Agree, you allow the television to send its model, firmware version and country to the "
    "service provider so that the right content can be offered.",
    "Viewing information includes the channels, programmes and applications you watch, the time you watch "
    "them and the inputs you use.",
    "You may withdraw your agreement at any time in Settings, and the change applies from the next start of "
    "the television.",
    "Personal data is kept only as long as it is needed for the purposes described in this notice, and then "
    "deleted or made anonymous.",
    "Some features use partners of the provider; they receive only the data they need and may not use it for "
    "their own purposes.",
    "Voice commands are processed on servers in your region; recordings are kept for at most ninety days "
    "unless you ask for earlier deletion.",
    "If you do not agree, the television still shows broadcast channels and connected devices, but online "
    "services stay unavailable.",
    "These terms are governed by the law of the country in which you bought the television, without regard "
    "to its conflict of law rules.",
    "The provider may change these terms; you will be asked to review the new version before it applies to "
    "you.",
    "Questions about this notice can be sent to the privacy office named in the manual that came with the "
    "television.",
    "Software updates may be downloaded and installed automatically to keep the television secure and its "
    "services working.",
    "Recommendations are based on what was watched on this television and are not shared with other "
    "households.",
};
const char* const kFrench[] = {
    "En choisissant Accepter, vous autorisez le téléviseur à envoyer son modèle, sa version logicielle et "
    "son pays au fournisseur afin de proposer le bon contenu.",
    "Les informations de visionnage comprennent les chaînes, programmes et applications regardés, l'heure "
    "du visionnage et les entrées utilisées.",
    "Vous pouvez retirer votre accord à tout moment dans Paramètres ; le changement s'applique au prochain "
    "démarrage du téléviseur.",
    "Les données personnelles ne sont conservées que le temps nécessaire aux finalités décrites ici, puis "
    "supprimées ou rendues anonymes.",
    "Certaines fonctions font appel à des partenaires du fournisseur ; ils ne reçoivent que les données "
    "nécessaires et ne peuvent pas les réutiliser.",
    "Les commandes vocales sont traitées sur des serveurs de votre région ; les enregistrements sont gardés "
    "quatre-vingt-dix jours au plus.",
    "Si vous refusez, le téléviseur affiche toujours les chaînes diffusées et les appareils connectés, mais "
    "les services en ligne restent indisponibles.",
    "Ces conditions sont régies par le droit du pays d'achat du téléviseur, sans égard à ses règles de "
    "conflit de lois.",
    "Le fournisseur peut modifier ces conditions ; il vous sera demandé de relire la nouvelle version avant "
    "qu'elle ne s'applique.",
    "Les questions sur cet avis peuvent être adressées au service de protection des données indiqué dans "
    "le manuel.",
    "Des mises à jour logicielles peuvent être téléchargées et installées automatiquement pour garder le "
    "téléviseur sûr.",
    "Les recommandations se fondent sur ce qui a été regardé sur ce téléviseur et ne sont pas partagées.",
};

// About `size` bytes of text: numbered sections of sentences, the mix depending on `seed`.
template <size_t N>
std::string LegalText(const char* const (&sentences)[N], size_t seed, size_t size) {
    std::string text;
    for (size_t section = 1; text.size() < size; ++section) {
        text += std::to_string(section) + ". ";
        for (size_t i = 0; i < 6 && text.size() < size; ++i) {
            text += sentences[(seed * 7 + section * 3 + i * 5) % N];
            text += ' ';
        }
        text += "\n\n";
    }
    return text;
}

Json::Value Texts(const std::string& title, const std::string& intro, const std::string& details,
                  const char* agree, const char* disagree) {
    Json::Value texts(Json::objectValue);
    texts["title"] = title;
    texts["intro"] = intro;
    texts["details"] = details;
    texts["button1"] = agree;
    texts["button2"] = disagree;
    return texts;
}

}  // namespace

TempDir::TempDir(const std::string& prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) m_path = pattern;
}

TempDir::~TempDir() { Remove(); }

void TempDir::Remove() {
    // TARVO_BENCH_KEEP=1 leaves the roots, their logs and stores, for a look at where time went.
    const char* keep = std::getenv("TARVO_BENCH_KEEP");
    if (keep != nullptr && std::string(keep) == "1") return;
    std::error_code ignored;
    if (!m_path.empty()) fs::remove_all(m_path, ignored);
    m_path.clear();
}

bool CopyTree(const std::string& from, const std::string& to) {
    std::error_code ec;
    fs::create_directories(to, ec);
    for (auto it = fs::recursive_directory_iterator(from, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const fs::path target = fs::path(to) / fs::relative(it->path(), from);
        if (it->is_directory()) {
            fs::create_directories(target, ec);
        } else if (it->is_regular_file()) {
            fs::copy_file(it->path(), target, fs::copy_options::overwrite_existing, ec);
        }
        if (ec) return false;
    }
    return !ec;
}

const std::vector<std::string>& DisclaimerIds() {
    static const std::vector<std::string> ids = {
        "main_common",     "sub_common",  "tnc",      "pp",
        "pp_sub1",         "voice_new",   "nuance",   "tidemark",
        "yahoo",           "rm_pn",       "rm",       "rm_ud",
        "yahoo_tos",       "voice_new_2", "nuance_2", "voice_internal",
        "service_request", "uhd_video",   "viewing",  "billing",
        "voice_service"};
    return ids;
}

size_t ListedCount() { return DisclaimerIds().size() - 5; }

namespace {
size_t g_records = 21;
}  // namespace

void SetRecords(size_t records) { g_records = std::max(records, DisclaimerIds().size()); }

size_t Records() { return g_records; }

std::vector<std::string> ExtraIds() {
    std::vector<std::string> ids;
    for (size_t i = 1; i + DisclaimerIds().size() <= g_records; ++i) {
        char id[32];
        std::snprintf(id, sizeof id, "extra_%04zu", i);
        ids.push_back(id);
    }
    return ids;
}

size_t StoredListedCount() { return ListedCount() + ExtraIds().size(); }

bool WriteDataSet(const std::string& dir) {
    Json::Value set(Json::objectValue);
    set["country"] = "US";
    set["set_id"] = "BENCH-US-2024";
    set["reverseOSD"] = "false";
    set["disclaimers"] = Json::Value(Json::arrayValue);
    std::vector<std::string> ids = DisclaimerIds();
    for (const std::string& extra : ExtraIds()) ids.push_back(extra);
    for (size_t i = 0; i < ids.size(); ++i) {
        Json::Value disclaimer(Json::objectValue);
        disclaimer["id"] = ids[i];
        disclaimer["version"] = "4." + std::to_string(i);
        Json::Value& content = disclaimer["content"];
        content["displayWindow"] = i % 3 == 0 ? "main" : (i % 3 == 1 ? "sub" : "menu");
        content["order"] = std::to_string(i);
        for (const char* flag :
             {"only_notice", "check_voice_rec", "check_uhdrm", "check_uhd", "m_isForOstrel"}) {
            content[flag] = "no";
        }
        // As a real set of terms: voice terms need voice recognition, the remote-management ones UHD
        // remote management (which the default profile lacks, so they are not listed), one UHD.
        if (ids[i].find("voice") != std::string::npos || ids[i].find("nuance") != std::string::npos) {
            content["check_voice_rec"] = "yes";
        }
        if (ids[i] == "rm" || ids[i] == "rm_pn" || ids[i] == "rm_ud") content["check_uhdrm"] = "yes";
        if (ids[i] == "uhd_video") content["check_uhd"] = "yes";
        for (const char* flag : {"visible_pnp", "visible_menu", "visible_hoteltv"}) content[flag] = "yes";
        content["pp_use"] = ids[i] == "pp" ? "yes" : "no";
        const size_t details = 18500;
        disclaimer["texts"]["en"] =
            Texts("Terms for " + ids[i], "Please read the following terms carefully before you continue.",
                  LegalText(kEnglish, i, details), "Agree", "Disagree");
        disclaimer["texts"]["fr"] =
            Texts("Conditions : " + ids[i], "Veuillez lire attentivement les conditions suivantes.",
                  LegalText(kFrench, i, details), "Accepter", "Refuser");
        set["disclaimers"].append(disclaimer);
    }
    std::error_code ec;
    fs::create_directories(fs::path(dir) / "openapi", ec);
    std::ofstream out(fs::path(dir) / "openapi" / "US.json", std::ios::binary | std::ios::trunc);
    out << Compact(set) << "\n";
    return !ec && static_cast<bool>(out.flush());
}

bool Cloud::Start(const std::string& data_dir, const TempDir& root, std::string& error) {
    const std::string state = root.Path() + "/cloud-state.json";
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{TARVO_CLOUD_BIN, "--data", data_dir, "--openapi-port", "0", "--admin-port",
                                 "0", "--production-port", "0", "--staging-port", "0", "--tls-dir",
                                 root.Path() + "/cloud-tls", "--write-profile",
                                 root.At("/etc/tarvo/device.json"), "--state-file", state},
        std::map<std::string, std::string>{}, root.Path() + "/cloud");
    Json::Value ports;
    if (!m_process->Started() ||
        !WaitUntil([&] { return (ports = ParseText(ReadFile(state))).isObject(); })) {
        error = "tarvo-cloud did not start: " + m_process->Stderr();
        return false;
    }
    m_openapiPort = ports["openapi"].asInt();
    m_adminPort = ports["admin"].asInt();
    m_ports = ports;
    m_caFile = ports["ca"].asString();
    return true;
}

std::vector<BareRequest> Cloud::Recorded(const std::string& method) const {
    std::vector<BareRequest> requests;
    for (const Json::Value& entry : Admin("/admin/requests")) {
        if (entry["method"].asString() != method) continue;
        const std::string server = entry["server"].asString();
        const bool tls = server != "openapi";
        BareRequest request;
        request.method = method;
        request.url = std::string(tls ? "https" : "http") +
                      "://127.0.0.1:" + std::to_string(m_ports[server].asInt()) + entry["target"].asString();
        for (const Json::Value& line : entry["header_lines"]) {
            const std::string text = line.asString();
            // libcurl writes these itself, from the body it is given.
            if (text.rfind("Content-Length:", 0) == 0 || text.rfind("Transfer-Encoding:", 0) == 0) continue;
            request.headers.push_back(text);
        }
        request.body = entry["body"].asString();
        if (tls) request.caFile = m_caFile;
        requests.push_back(request);
    }
    return requests;
}

Json::Value Cloud::Admin(const std::string& path) const {
    httplib::Client client("127.0.0.1", m_adminPort);
    const auto answer = client.Get(path);
    return answer && answer->status == 200 ? ParseText(answer->body) : Json::Value();
}

bool Cloud::AdminDelete(const std::string& path) const {
    httplib::Client client("127.0.0.1", m_adminPort);
    const auto answer = client.Delete(path);
    return answer && answer->status == 200;
}

std::string FloorStore(const TempDir& root, std::string& error) {
    const std::string store_file = root.At(kStoreFile);
    const std::string floor_file = fs::path(store_file).parent_path() / "floor.db";
    std::error_code copied;
    fs::copy_file(store_file, floor_file, copied);
    if (!copied) return floor_file;
    error = "cannot copy " + store_file + ": " + copied.message();
    return std::string();
}

bool SetNetwork(const TempDir& root, bool up) {
    setenv("TARVO_ROOT", root.Path().c_str(), 1);
    Json::Value profile = tarvo::platform::LoadDeviceProfile().value_or(Json::Value(Json::objectValue));
    profile["network"]["up"] = up;
    return tarvo::platform::SaveDeviceProfile(profile);
}

bool PrepareTelevision(const TempDir& root, const std::string& openapi_url, bool network_up) {
    setenv("TARVO_ROOT", root.Path().c_str(), 1);
    // The log tails follow one file: a sync that logs a large answer must not turn the ring over.
    setenv("TARVO_LOG_MAX_BYTES", "4294967296", 0);
    if (!tarvo::platform::PrepareRoot(root.Path())) return false;
    // The answer of 2,000 records is about 37 MB, above the HTTP client's default bound.
    Json::Value profile = tarvo::platform::LoadDeviceProfile().value_or(Json::Value(Json::objectValue));
    profile["curl"]["max_body"] = Json::Int64(1) << 30;
    if (!tarvo::platform::SaveDeviceProfile(profile)) return false;
    const std::pair<const char*, std::string> keys[] = {
        {"db/nimbra/gpmurl/apps", openapi_url},    {"db/nimbra/countrycode", "US"},
        {"db/nimbra/modelid", "TRV55BENCH"},       {"db/nimbra/duid", "DUID-BENCH-0001"},
        {"db/menu_widget/language", "en_US.utf8"},
    };
    for (const auto& [key, value] : keys) {
        if (vconf_set_str(key, value.c_str()) != 0) return false;
    }
    return SetNetwork(root, network_up);
}

HostLink::~HostLink() {
    if (m_fd >= 0) close(m_fd);
}

bool HostLink::Connect(const std::string& socket_path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return m_fd >= 0 && connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

bool HostLink::SendLine(const std::string& line) {
    const std::string text = line.back() == '\n' ? line : line + "\n";
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = send(m_fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::optional<std::string> HostLink::ReadLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const size_t newline = m_pending.find('\n');
        if (newline != std::string::npos) {
            std::string line = m_pending.substr(0, newline);
            m_pending.erase(0, newline + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) return std::nullopt;
        pollfd ready{m_fd, POLLIN, 0};
        const int polled = poll(&ready, 1, static_cast<int>(left.count()) + 1);
        if (polled < 0 && errno == EINTR) continue;
        if (polled <= 0) return std::nullopt;
        char buffer[65536];
        const ssize_t n = recv(m_fd, buffer, sizeof(buffer), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        m_pending.append(buffer, static_cast<size_t>(n));
    }
}

std::optional<Json::Value> HostLink::Call(const Json::Value& request) {
    Json::Value frame(Json::objectValue);
    const long long id = m_nextId++;
    frame["id"] = Json::Int64(id);
    frame["call"] = request;
    if (!SendLine(Compact(frame))) return std::nullopt;
    while (const auto line = ReadLine()) {
        const Json::Value answer = ParseText(*line);
        if (answer["id"].isIntegral() && answer["id"].asInt64() == id) return answer["reply"];
    }
    return std::nullopt;
}

bool HostLink::Subscribe() {
    if (!SendLine(R"({"id": 0, "subscribe": true})")) return false;
    const auto line = ReadLine();
    return line && ParseText(*line)["ok"].asBool();
}

bool HostLink::WaitNotification(const std::string& name, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) return false;
        const auto line = ReadLine(left);
        if (!line) return false;
        // Cheap check first: most frames a waiter sees are the one it waits for.
        if (line->find(name) == std::string::npos) continue;
        if (ParseText(*line)["notification"]["name"].asString() == name) return true;
    }
}

void LogToNullIfAsked(const std::string& root) {
    const char* to_null = std::getenv("TARVO_BENCH_LOG_TO_NULL");
    if (to_null == nullptr || std::string(to_null) != "1") return;
    std::error_code ignored;
    fs::remove(root + "/var/log/tarvo.log", ignored);
    fs::create_symlink("/dev/null", root + "/var/log/tarvo.log", ignored);
}

bool Host::Start(const TempDir& root, std::string& error) {
    m_socket = root.At("/run/tarvodatacontrol.sock");
    LogToNullIfAsked(root.Path());
    std::vector<std::string> argv = {TARVO_HOST_BIN, "--module", TARVO_MODULE_PATH, "--root", root.Path()};
    // TARVO_BENCH_HOST_WRAPPER runs the host under a tool, e.g. "/usr/bin/valgrind --tool=callgrind":
    // where its time goes (a diagnosis, never a figure of the table).
    if (const char* wrapper = std::getenv("TARVO_BENCH_HOST_WRAPPER")) {
        std::istringstream words(wrapper);
        std::vector<std::string> prefix;
        for (std::string word; words >> word;) prefix.push_back(word);
        argv.insert(argv.begin(), prefix.begin(), prefix.end());
    }
    m_process = std::make_unique<ChildProcess>(
        argv, std::map<std::string, std::string>{{"TARVO_ROOT", root.Path()}}, root.Path() + "/host");
    Json::Value available(Json::objectValue);
    available["method"] = "is service available";
    const bool up = m_process->Started() && WaitUntil(
                                                [&] {
                                                    if (!m_process->Running()) return true;
                                                    HostLink probe;
                                                    if (!probe.Connect(m_socket)) return false;
                                                    const auto reply = probe.Call(available);
                                                    return reply && (*reply)["result"].asBool();
                                                },
                                                std::chrono::seconds(120));
    if (!up || !m_process->Running()) {
        error = "tarvo-service-host did not start: " + m_process->Stderr();
        return false;
    }
    return true;
}

LogTail::LogTail(const TempDir& root) : m_path(root.At("/var/log/tarvo.log")) {
    m_inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    m_file = open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_CREAT, 0644);
    if (m_file >= 0) lseek(m_file, 0, SEEK_END);
    if (m_inotify >= 0) inotify_add_watch(m_inotify, m_path.c_str(), IN_MODIFY);
}

LogTail::~LogTail() {
    if (m_inotify >= 0) close(m_inotify);
    if (m_file >= 0) close(m_file);
}

bool LogTail::m_ReadNew() {
    char buffer[65536];
    bool any = false;
    while (true) {
        const ssize_t n = read(m_file, buffer, sizeof(buffer));
        if (n <= 0) return any;
        m_buffer.append(buffer, static_cast<size_t>(n));
        any = true;
    }
}

bool LogTail::WaitFor(const std::string& text, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        m_ReadNew();
        // Only whole lines are searched; the unfinished rest waits for its newline.
        const size_t last_newline = m_buffer.rfind('\n');
        if (last_newline != std::string::npos) {
            const size_t found = m_buffer.find(text);
            if (found != std::string::npos && found < last_newline) {
                const size_t line_end = m_buffer.find('\n', found);
                m_buffer.erase(0, line_end + 1);
                return true;
            }
            m_buffer.erase(0, last_newline + 1);
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) return false;
        pollfd ready{m_inotify, POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(left.count()) + 1) > 0) {
            char events[4096];
            while (read(m_inotify, events, sizeof(events)) > 0) {
            }
        }
    }
}

bool LogTail::WaitQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd ready{m_inotify, POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(quiet.count())) == 0) {
            m_ReadNew();
            m_buffer.clear();
            return true;
        }
        char events[4096];
        while (read(m_inotify, events, sizeof(events)) > 0) {
        }
    }
    return false;
}

bool SeededTelevision(const TempDir& root, const std::string& data_dir, Cloud& cloud, std::string& error) {
    if (!WriteDataSet(data_dir)) {
        error = "cannot write the data set into " + data_dir;
        return false;
    }
    if (!PrepareTelevision(root, "http://127.0.0.1:9", false)) {
        error = "cannot prepare the root " + root.Path();
        return false;
    }
    if (!cloud.Start(data_dir, root, error)) return false;
    if (vconf_set_str("db/nimbra/gpmurl/apps", cloud.OpenApiUrl().c_str()) != 0) {
        error = "cannot set the server URL";
        return false;
    }
    return SeedStore(root, error) && AddExtraRows(root, error);
}

bool AddExtraRows(const TempDir& root, std::string& error) {
    const std::vector<std::string> extras = ExtraIds();
    if (extras.empty()) return true;
    BareStore store;
    if (!store.Open(root.At(kStoreFile))) {
        error = store.Error();
        return false;
    }
    const int order = store.Column("disorder");
    Row model;
    for (const Row& row : store.DisclaimerRows()) {
        if (row[0].text == "viewing") model = row;
    }
    if (model.empty() || order < 0) {
        error = "no row of viewing to copy in " + root.At(kStoreFile);
        return false;
    }
    std::vector<Row> rows;
    for (size_t i = 0; i < extras.size(); ++i) {
        Row row = model;
        row[0].text = extras[i];
        row[static_cast<size_t>(order)].integer = static_cast<long long>(DisclaimerIds().size() + i);
        rows.push_back(std::move(row));
    }
    if (!store.InsertDisclaimers(rows)) {
        error = "cannot add the extra rows: " + store.Error();
        return false;
    }
    return true;
}

bool SeedStore(const TempDir& root, std::string& error) {
    if (!SetNetwork(root, true)) {
        error = "cannot write the device profile";
        return false;
    }
    Host host;
    if (!host.Start(root, error)) return false;
    LogTail log(root);
    HostLink link;
    Json::Value number(Json::objectValue);
    number["method"] = "get disclaimer number";
    number["requester"] = 4;
    const size_t expected = ListedCount();
    const bool synced =
        link.Connect(host.SocketPath()) && WaitUntil(
                                               [&] {
                                                   const auto reply = link.Call(number);
                                                   return reply && (*reply)["number"].asUInt() >= expected;
                                               },
                                               std::chrono::seconds(60));
    if (!synced) {
        error = "the service did not take the cloud's disclaimers";
        return false;
    }
    // The upload and the revised-terms check follow the merge.
    log.WaitQuiet(std::chrono::milliseconds(500));
    host.Stop();
    return SetNetwork(root, false);
}

void LetFilesSettle() { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); }

double CpuSeconds(pid_t pid) {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    // The fields after the command's name, which is in brackets and may hold blanks.
    const size_t close_bracket = stat.rfind(')');
    if (close_bracket == std::string::npos) return 0;
    std::istringstream fields(stat.substr(close_bracket + 2));
    std::string field;
    unsigned long long user = 0;
    unsigned long long system = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) user = std::stoull(field);
        if (index == 15) {
            system = std::stoull(field);
            break;
        }
    }
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double ThreadsCpuSeconds(pid_t pid) {
    unsigned long long total = 0;
    std::error_code ec;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
        std::ifstream in(task.path() / "schedstat");
        unsigned long long on_cpu = 0;
        if (in >> on_cpu) total += on_cpu;
    }
    return static_cast<double>(total) / 1e9;
}

double CallingThreadCpuSeconds() {
    struct timespec now {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

long ResidentKiB(pid_t pid, const char* field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    const std::string prefix = std::string(field) + ":";
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0)
            return std::strtol(line.c_str() + prefix.size(), nullptr, 10);
    }
    return -1;
}

}  // namespace bench
}  // namespace tarvo
