#include "TarvoDisclaimerDataItem.h"

const char* TarvoDisclaimerWindowName(ETarvoDisclaimerWindow window) {
    switch (window) {
        case TARVO_DISCLAIMER_WINDOW_MAIN:
            return "Main";
        case TARVO_DISCLAIMER_WINDOW_SUB:
            return "Sub";
        case TARVO_DISCLAIMER_WINDOW_MENU:
            return "Menu";
        default:
            return "Unknown";
    }
}

ETarvoDisclaimerWindow TarvoDisclaimerWindowFromName(const std::string& name) {
    if (name == "Main") return TARVO_DISCLAIMER_WINDOW_MAIN;
    if (name == "Sub") return TARVO_DISCLAIMER_WINDOW_SUB;
    if (name == "Menu") return TARVO_DISCLAIMER_WINDOW_MENU;
    return TARVO_DISCLAIMER_WINDOW_UNKNOWN;
}

TarvoDisclaimerDataItem::TarvoDisclaimerDataItem()
    : disorder(0),
      displayWindow(TARVO_DISCLAIMER_WINDOW_UNKNOWN),
      isAgreed(false),
      isAgreementPut(false),
      isOnlyNotice(false),
      isVisibleAtPnP(false),
      isVisibleAtMenu(false),
      isVisibleAtHotel(false),
      isCheckVoiceRec(false),
      isCheckUHDRM(false),
      isCheckUHD(false),
      isPPused(false),
      isReverse(false),
      hasRevised(false),
      isForOstrel(false) {}

TarvoDisclaimerDataItem::TarvoDisclaimerDataItem(const TarvoDisclaimerDataItem& other)
    : TarvoDisclaimerDataItem() {
    m_CopyFrom(other);
}

TarvoDisclaimerDataItem& TarvoDisclaimerDataItem::operator=(const TarvoDisclaimerDataItem& other) {
    if (this == &other) return *this;
    m_CopyFrom(other);
    return *this;
}

void TarvoDisclaimerDataItem::m_CopyFrom(const TarvoDisclaimerDataItem& other) {
    id = other.id;
    disorder = other.disorder;
    displayWindow = other.displayWindow;
    version = other.version;
    title = other.title;
    intro = other.intro;
    details = other.details;
    button1 = other.button1;
    button2 = other.button2;
    button3 = other.button3;
    button4 = other.button4;
    button5 = other.button5;
    button6 = other.button6;
    button7 = other.button7;
    button8 = other.button8;
    button9 = other.button9;
    button10 = other.button10;
    isAgreed = other.isAgreed;
    isAgreementPut = other.isAgreementPut;
    countryCode = other.countryCode;
    isOnlyNotice = other.isOnlyNotice;
    isVisibleAtPnP = other.isVisibleAtPnP;
    isVisibleAtMenu = other.isVisibleAtMenu;
    isVisibleAtHotel = other.isVisibleAtHotel;
    agreeDependency = other.agreeDependency;
    isCheckVoiceRec = other.isCheckVoiceRec;
    isCheckUHDRM = other.isCheckUHDRM;
    isCheckUHD = other.isCheckUHD;
    isPPused = other.isPPused;
    isReverse = other.isReverse;
    hasRevised = other.hasRevised;
    // An empty source list never wipes a filled one.
    if (!other.reservedStrings.empty()) reservedStrings = other.reservedStrings;
    subLink = other.subLink;
    isForOstrel = other.isForOstrel;
}
