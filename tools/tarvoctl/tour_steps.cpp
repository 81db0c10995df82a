// The steps of tarvoctl tour, in the order a television goes through them: each shows its
// commands, runs them and checks what they changed.
#include "disclaimer_view.h"
#include "tour.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>

namespace tarvoctl {

namespace {

constexpr auto kStartWait = std::chrono::seconds(30);
constexpr auto kUploadWait = std::chrono::seconds(30);
constexpr auto kResetWait = std::chrono::seconds(10);
const char* const kLanguageKey = "db/menu_widget/language";
const char* const kMirrorKey = "db/tarvodatacontrol/disclaimeragrees";
const char* const kStoreFile = "/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data/data.db";
const char* const kUsbFile =
    "/opt/usr/apps/org.mirlo.cloning/data/Clone/org.mirlo.tarvodatacontrol-service/data.db";

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) text += (text.empty() ? "" : ", ") + word;
    return text.empty() ? "nothing" : text;
}

bool Has(const std::vector<std::string>& ids, const std::string& id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

std::string ExitWords(int code) { return "exit " + std::to_string(code) + " (see above)"; }

bool Agreed(const Json::Value& record) { return record["is_agreed"] == true; }

std::string Answer(const Json::Value& record) {
    return record.isNull() ? "not available" : Agreed(record) ? "agreed" : "not agreed";
}

// A version the store does not hold yet: its last number counted up ("2.0" -> "2.1").
std::string NextVersion(const std::string& version) {
    const size_t start = version.find_last_not_of("0123456789") + 1;
    if (start >= version.size() || version.size() - start > 9) return version + ".1";
    return version.substr(0, start) + std::to_string(std::stol(version.substr(start)) + 1);
}

std::string FileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// "tnc Y (3.1), pp Y (4.0)" from the cloud's record of a television.
std::string Terms(const Json::Value& record) {
    std::string text;
    for (const char* id : {"tnc", "pp"}) {
        const Json::Value& term = record["terms"][id];
        text += std::string(text.empty() ? "" : ", ") + id + " " +
                (term.isObject() ? term["agree"].asString() + " (" + term["agreeVer"].asString() + ")" : "-");
    }
    return text;
}

}  // namespace

const std::vector<Tour::Step>& Tour::Steps() {
    static const std::vector<Step> steps = {
        {"The service is available: it answers on its socket and has started.", &Tour::Available},
        {"First fetch: the service brings its disclaimers up to date (from its store when it already holds "
         "the set of this country and language).",
         &Tour::FirstFetch},
        {"The first-run wizard's list (requester 2): its common items and the disclaimers it asks for.",
         &Tour::WizardList},
        {"The settings menu's list (requester 0): the records without the wizard's common items.",
         &Tour::MenuList},
        {"The user agrees to the terms (tnc) and the privacy notice (pp); vconf mirrors the answers.",
         &Tour::Agree},
        {"The service uploads the answers, and the cloud's agreement server has them.", &Tour::Upload},
        {"Another on-screen language fetches the texts anew in it, answers kept; then the language is set "
         "back.",
         &Tour::Language},
        {"The cloud publishes a new version of an agreed disclaimer; after a wake-up it is revised, to be "
         "asked "
         "again.",
         &Tour::Revision},
        {"A reset clears every stored disclaimer and answer.", &Tour::Reset},
        {"The next update fetches the set anew, without answers.", &Tour::FetchAfterReset},
        {"Clone to USB: the store is copied to the USB clone folder.", &Tour::CloneToUsb},
        {"Clone from USB: the copy comes back beside the store, to replace it at the next start (the tour "
         "removes it again).",
         &Tour::CloneFromUsb},
    };
    return steps;
}

Outcome Tour::Available() {
    if (!Show({Command({"status"})})) return Outcome{};
    // Right after the host starts, its service may not have started yet.
    Json::Value request(Json::objectValue);
    request["method"] = "is service available";
    std::optional<Json::Value> reply;
    Poll([&] { return (reply = Ask(request)) && (*reply)["result"] == true; }, kStartWait);
    if (!reply || (*reply)["result"] != true) {
        return Wrong("\"is service available\" to answer result true within " +
                         std::to_string(kStartWait.count()) + " s",
                     reply ? CompactJson(*reply) : "no reply");
    }
    const int code = Verb({"status"});
    if (code != kExitDone) return Wrong("tarvoctl status to exit 0", ExitWords(code));
    return Good("the service says it is available");
}

Outcome Tour::FirstFetch() {
    if (!Show({Command({"update"})})) return Outcome{};
    const int code = Verb({"update"});
    if (code != kExitDone) return Wrong("the update to succeed", ExitWords(code));
    const auto ids = Ids(4);
    if (!ids || ids->empty()) return Wrong("the store to hold disclaimers", "none");
    return Good("the store holds " + std::to_string(ids->size()) + " disclaimers: " + Joined(*ids));
}

Outcome Tour::WizardList() {
    if (!Show({Command({"list", "--requester", "2"})})) return Outcome{};
    Verb({"list", "--requester", "2"});
    const auto ids = Ids(2);
    if (!ids || !Has(*ids, "tnc") || !Has(*ids, "pp")) {
        return Wrong("tnc and pp among the wizard's items", ids ? Joined(*ids) : "no list");
    }
    return Good("the wizard lists " + Joined(*ids));
}

Outcome Tour::MenuList() {
    if (!Show({Command({"list", "--requester", "0"})})) return Outcome{};
    Verb({"list", "--requester", "0"});
    const auto ids = Ids(0);
    if (!ids || !Has(*ids, "tnc") || !Has(*ids, "pp") || Has(*ids, "main_common") ||
        Has(*ids, "sub_common")) {
        return Wrong("tnc and pp and no common item in the menu", ids ? Joined(*ids) : "no list");
    }
    return Good("the menu lists " + Joined(*ids));
}

Outcome Tour::Agree() {
    m_answeredBefore = Agreed(Record("tnc")) && Agreed(Record("pp"));
    std::string deployment, ignored;
    m_uploadsBefore = CloudRecord(&deployment, &ignored)["uploads"].asUInt();
    if (!Show({Command({"agree", "tnc", "pp"}), Command({"vconf", "get", kMirrorKey})})) return Outcome{};
    const int code = Verb({"agree", "tnc", "pp"});
    Verb({"vconf", "get", kMirrorKey});
    if (code != kExitDone) return Wrong("the agreement to be taken", ExitWords(code));
    const Json::Value tnc = Record("tnc"), pp = Record("pp");
    if (!Agreed(tnc) || !Agreed(pp)) {
        return Wrong("tnc and pp agreed when read back", "tnc " + Answer(tnc) + ", pp " + Answer(pp));
    }
    const Json::Value mirror = Mirror();
    if (mirror["tnc"] != "true" || mirror["pp"] != "true") {
        return Wrong(std::string(kMirrorKey) + " to say tnc true and pp true", CompactJson(mirror));
    }
    return Good("tnc and pp read back agreed, and " + std::string(kMirrorKey) + " says so");
}

Outcome Tour::Upload() {
    std::string why;
    const AdminEndpoint* admin = Admin(&why);
    const std::string curl =
        "curl -s " + (admin ? admin->Url() : std::string("http://127.0.0.1:ADMIN")) + "/admin/agreements";
    if (!Show({curl})) return Outcome{};
    if (admin == nullptr) return Wrong("the cloud's admin endpoint", why);
    Echo(curl);
    // An endpoint that does not answer at all is no reason to wait for an upload.
    if (!admin->Get("/admin/agreements", &why)) return Wrong("the cloud's admin endpoint to answer", why);
    Json::Value record;
    std::string deployment, error;
    const bool seen = Poll(
        [&] {
            error.clear();
            record = CloudRecord(&deployment, &error);
            return record["terms"]["tnc"]["agree"] == "Y" && record["terms"]["pp"]["agree"] == "Y" &&
                   (m_answeredBefore || record["uploads"].asUInt() > m_uploadsBefore);
        },
        kUploadWait);
    if (!seen) {
        return Wrong(
            "a new upload with tnc Y and pp Y within " + std::to_string(kUploadWait.count()) + " s",
            error.empty() ? Terms(record) + " after " + record["uploads"].asString() + " upload(s)" : error);
    }
    return Good("the " + deployment + " agreement server holds for " + VconfText("db/nimbra/duid") + ": " +
                Terms(record) + ", " + record["uploads"].asString() + " upload(s)");
}

Outcome Tour::Language() {
    const std::string original = VconfText(kLanguageKey);
    if (original.empty()) return Wrong(std::string(kLanguageKey) + " to be set", "it is not set");
    const std::string other = original == "ko_kr.utf8" ? "en_US.utf8" : "ko_kr.utf8";
    const std::string before = Record("tnc")["title"].asString();
    if (!Show({Command({"vconf", "set", kLanguageKey, other}), Command({"update"}),
               Command({"vconf", "set", kLanguageKey, original}), Command({"update"})}))
        return Outcome{};
    m_language = original;
    Verb({"vconf", "set", kLanguageKey, other});
    int code = Verb({"update"});
    if (code != kExitDone) return Wrong("the update in " + other + " to succeed", ExitWords(code));
    const Json::Value tnc = Record("tnc"), pp = Record("pp");
    const std::string changed = tnc["title"].asString();
    if (changed == before || !Agreed(tnc) || !Agreed(pp)) {
        return Wrong("tnc's title other than \"" + before + "\", tnc and pp still agreed",
                     "\"" + changed + "\", tnc " + Answer(tnc) + ", pp " + Answer(pp));
    }
    Verb({"vconf", "set", kLanguageKey, original});
    code = Verb({"update"});
    if (code != kExitDone) return Wrong("the update in " + original + " to succeed", ExitWords(code));
    m_language.clear();
    const Json::Value back = Record("tnc");
    if (back["title"] != before || !Agreed(back) || !Agreed(Record("pp"))) {
        return Wrong(
            "tnc's title \"" + before + "\" again, tnc and pp still agreed",
            "\"" + back["title"].asString() + "\", tnc " + Answer(back) + ", pp " + Answer(Record("pp")));
    }
    return Good("tnc reads \"" + changed + "\" in " + other + " and \"" + before + "\" again in " + original +
                "; tnc and pp stayed agreed");
}

Outcome Tour::Revision() {
    // One with an answer of its own: tnc and pp never ask again, and a combined one (agreed with
    // them) has no answer of its own.
    ServiceSession session(m_context);
    if (!session.Open()) return Wrong("the service's list", "no service");
    const auto listed = CollectDisclaimers(session, 4);
    Json::Value target;
    for (const auto& d : listed ? *listed : std::vector<Json::Value>{}) {
        const std::string id = d["id"].asString();
        if (id == "tnc" || id == "pp" || id == "main_common" || id == "sub_common" ||
            d["only_notice"] == true || Agreed(d))
            continue;
        if (target.isNull() || id == "viewing") target = d;
    }
    if (target.isNull()) return Wrong("a disclaimer besides tnc and pp that takes an answer", "none");
    const std::string id = target["id"].asString();
    const std::string version = NextVersion(target["version"].asString());
    Json::Value publish(Json::objectValue);
    publish["country"] = VconfText("db/nimbra/countrycode");
    publish["id"] = id;
    publish["version"] = version;
    std::string error;
    const AdminEndpoint* admin = Admin(&error);
    const std::string curl = "curl -s -H 'Content-Type: application/json' -d '" + CompactJson(publish) +
                             "' " + (admin ? admin->Url() : std::string("http://127.0.0.1:ADMIN")) +
                             "/admin/publish";
    if (!Show({Command({"agree", id}), curl, Command({"update", "--wakeup"}), Command({"revised"})}))
        return Outcome{};
    if (admin == nullptr) return Wrong("the cloud's admin endpoint", error);
    int code = Verb({"agree", id});
    if (code != kExitDone || !Agreed(Record(id))) return Wrong(id + " agreed", Answer(Record(id)));
    Echo(curl);
    const auto published = admin->Post("/admin/publish", publish, &error);
    if (!published) return Wrong("the cloud to publish " + id + " " + version, error);
    std::cout << CompactJson(*published) << std::endl;
    code = Verb({"update", "--wakeup"});
    if (code != kExitDone) return Wrong("the update after the wake-up to succeed", ExitWords(code));
    Verb({"revised"});
    Json::Value request(Json::objectValue);
    request["method"] = "get revised disclaimers";
    const auto reply = Ask(request);
    std::vector<std::string> revised;
    for (const auto& d : reply ? (*reply)["disclaimers"] : Json::Value()) {
        revised.push_back(d["id"].asString() + " " + d["version"].asString());
    }
    if (!Has(revised, id + " " + version))
        return Wrong(id + " " + version + " among the revised", Joined(revised));
    return Good(id + " " + version + " is revised; its answer is now " + Answer(Record(id)));
}

Outcome Tour::Reset() {
    if (!Show({Command({"reset"}), Command({"status"})})) return Outcome{};
    const int code = Verb({"reset"});
    if (code != kExitDone) return Wrong("the reset to be taken", ExitWords(code));
    std::optional<std::vector<std::string>> ids;
    const bool cleared = Poll(
        [&] {
            ids = Ids(4);
            return ids && ids->empty() && VconfText(kMirrorKey).empty();
        },
        kResetWait);
    Verb({"status"});
    if (!cleared) {
        return Wrong("no disclaimer and an empty " + std::string(kMirrorKey),
                     (ids ? Joined(*ids) : "no list") + "; the mirror \"" + VconfText(kMirrorKey) + "\"");
    }
    return Good("the store holds no disclaimers and " + std::string(kMirrorKey) + " is empty");
}

Outcome Tour::FetchAfterReset() {
    if (!Show({Command({"update"})})) return Outcome{};
    const int code = Verb({"update"});
    if (code != kExitDone) return Wrong("the update to succeed", ExitWords(code));
    const auto ids = Ids(4);
    const Json::Value mirror = Mirror();
    bool any_agreed = false;
    for (const auto& id : mirror.getMemberNames()) any_agreed = any_agreed || mirror[id] != "false";
    if (!ids || ids->empty() || mirror.empty() || any_agreed) {
        return Wrong("disclaimers again, none agreed",
                     (ids ? Joined(*ids) : "no list") + "; the mirror " + CompactJson(mirror));
    }
    return Good(std::to_string(ids->size()) + " disclaimers again, none agreed");
}

Outcome Tour::CloneToUsb() {
    if (!Show({Command({"clone", "to-usb"})})) return Outcome{};
    const int code = Verb({"clone", "to-usb"});
    if (code != kExitDone) return Wrong("the copy to succeed", ExitWords(code));
    const std::string usb = m_context.Root() + kUsbFile;
    const std::string copy = FileBytes(usb);
    const std::string store = FileBytes(m_context.Root() + kStoreFile);
    if (copy.compare(0, 16, std::string("SQLite format 3\0", 16)) != 0 || copy != store) {
        return Wrong(usb + " to hold the store's " + std::to_string(store.size()) + " bytes",
                     std::to_string(copy.size()) + " other bytes");
    }
    return Good(usb + " holds the store's " + std::to_string(copy.size()) + " bytes");
}

Outcome Tour::CloneFromUsb() {
    if (!Show({Command({"clone", "from-usb"})})) return Outcome{};
    const int code = Verb({"clone", "from-usb"});
    if (code != kExitDone) return Wrong("the copy to succeed", ExitWords(code));
    m_clonePath = m_context.Root() + kStoreFile + "_clone";
    const std::string copy = FileBytes(m_clonePath);
    const std::string usb = FileBytes(m_context.Root() + kUsbFile);
    if (copy.empty() || copy != usb) {
        return Wrong(m_clonePath + " to hold the USB copy's " + std::to_string(usb.size()) + " bytes",
                     std::to_string(copy.size()) + " other bytes");
    }
    return Good(m_clonePath + " holds the USB copy (removed again when the tour ends)");
}

}  // namespace tarvoctl
