// The disclaimer record: a legal text with its buttons, where it applies and the user's answer.
// A plain value without a lock: records live on the heap, and whoever made one with `new` or
// received one in a list or map deletes it.
#pragma once

#include <string>
#include <vector>

// The screen area of a disclaimer; stored in the table by name.
enum ETarvoDisclaimerWindow : int {
    TARVO_DISCLAIMER_WINDOW_UNKNOWN = 0,
    TARVO_DISCLAIMER_WINDOW_MAIN = 1,
    TARVO_DISCLAIMER_WINDOW_SUB = 2,
    TARVO_DISCLAIMER_WINDOW_MENU = 3,
};

// Who asks for the ordered list: selects its filter and its order. Any integer may arrive.
enum ETarvoDisclaimerRequester : int {
    TARVO_DISCLAIMER_REQUESTER_MENU = 0,
    TARVO_DISCLAIMER_REQUESTER_APP = 1,
    TARVO_DISCLAIMER_REQUESTER_PNP = 2,
    TARVO_DISCLAIMER_REQUESTER_NONE = 3,
    TARVO_DISCLAIMER_REQUESTER_ALL = 4,
};

// "Main", "Sub", "Menu", and "Unknown" for any other value.
const char* TarvoDisclaimerWindowName(ETarvoDisclaimerWindow window);
// The exact inverse of the names above; any other text gives Unknown.
ETarvoDisclaimerWindow TarvoDisclaimerWindowFromName(const std::string& name);

class TarvoDisclaimerDataItem {
  public:
    TarvoDisclaimerDataItem();
    TarvoDisclaimerDataItem(const TarvoDisclaimerDataItem& other);
    // Keeps the target's reservedStrings when the source's list is empty.
    TarvoDisclaimerDataItem& operator=(const TarvoDisclaimerDataItem& other);

    std::string id;
    int disorder;
    ETarvoDisclaimerWindow displayWindow;
    std::string version;
    std::string title;
    std::string intro;
    std::string details;
    std::string button1;
    std::string button2;
    std::string button3;
    std::string button4;
    std::string button5;
    std::string button6;
    std::string button7;
    std::string button8;
    std::string button9;
    std::string button10;
    bool isAgreed;
    bool isAgreementPut;
    std::string countryCode;
    bool isOnlyNotice;
    bool isVisibleAtPnP;
    bool isVisibleAtMenu;
    bool isVisibleAtHotel;
    std::string agreeDependency;
    bool isCheckVoiceRec;
    bool isCheckUHDRM;
    bool isCheckUHD;
    bool isPPused;
    bool isReverse;
    bool hasRevised;
    std::vector<std::string> reservedStrings;
    std::string subLink;
    bool isForOstrel;

  private:
    void m_CopyFrom(const TarvoDisclaimerDataItem& other);
};
