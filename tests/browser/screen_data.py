"""The disclaimer sets the browser tests serve: our own names, one left-to-right set (US, English)
and one right-to-left set (AE, Arabic)."""


def _content(window, order, pnp=True, menu=True, **extra):
    content = {key: "no" for key in ("only_notice", "check_voice_rec", "check_uhdrm", "check_uhd", "pp_use",
                                     "m_isForOstrel")}
    content.update(displayWindow=window, order=str(order), visible_pnp="yes" if pnp else "no",
                   visible_menu="yes" if menu else "no", visible_hoteltv="yes", **extra)
    return content


def _item(id_, content, lang, title, intro, details, *buttons, version="1.0"):
    texts = {"title": title, "intro": intro, "details": details}
    for i, label in enumerate(buttons, start=1):
        texts[f"button{i}"] = label
    return {"id": id_, "version": version, "content": content, "texts": {lang: texts}}


PRIVACY_SECTIONS = [
    {"title": "What the television collects", "content": "The model, its software version and the settings you choose."},
    {"title": "Why", "content": "To deliver updates and keep the online services working."},
    {"title": "Your choices", "content": "Withdraw your answer at any time in Settings."},
]

US = {
    "country": "US",
    "set_id": "SCREEN-US-1",
    "reverseOSD": "false",
    "disclaimers": [
        _item("main_common", _content("main", 0, menu=False), "en", "Welcome to Tarvo Home",
              "Answer the terms below to start the television's online services.",
              "Each term explains what it covers. You can change every answer later in Settings.",
              "Agree to All", "Next"),
        _item("tnc", _content("main", 1), "en", "Terms of Use", "The rules for using Tarvo Home.",
              "1. Using the services.\n2. Your account.\n3. Changes to these terms.", "Agree", "Disagree"),
        _item("pp", _content("main", 2, pp_use="yes"), "en", "Privacy Notice",
              "How the television handles information.", PRIVACY_SECTIONS, "Agree", "Disagree"),
        _item("sub_common", _content("sub", 0, menu=False), "en", "Optional Services",
              "These services are optional; the television works without them.",
              "Open each service to read what it does.", "Agree to All", "Skip"),
        _item("viewing", _content("sub", 1, agree_dependency="pp"), "en", "Viewing Insights",
              "Suggestions based on what you watch.", "Uses the channels and programmes you watch.",
              "Agree", "Disagree"),
        _item("voice_new", _content("sub", 2), "en", "Voice Control", "Control the television by voice.",
              "Your voice commands are turned into text.", "Agree", "Disagree"),
        _item("voice_service", _content("sub", 3, agree_dependency="voice_new"), "en", "Voice Dictation Partner",
              "Dictation by our partner Quillmere Speech.", "Needs Voice Control.", "Agree", "Disagree"),
        _item("service_request", _content("sub", 4, only_notice="yes"), "en", "Remote Support Notice",
              "Support staff may connect to the television when you ask for help.",
              "Nothing is shared until you start a support session.", "OK"),
        _item("billing", _content("menu", 1, pnp=False), "en", "Purchases", "Buying apps and films.",
              "Payments are handled by Tarvo Pay.", "Agree", "Disagree"),
        _item("pp_sub1", _content("menu", 2, pnp=False, sub_link="tnc/pp"), "en", "Terms and Privacy Together",
              "Answers the Terms of Use and the Privacy Notice at once.", "Both texts apply.", "Agree", "Disagree"),
    ],
}

AE = {
    "country": "AE",
    "set_id": "SCREEN-AE-1",
    "reverseOSD": "true",
    "disclaimers": [
        _item("main_common", _content("main", 0, menu=False), "ar", "مرحبًا بك في تارفو هوم",
              "أجب عن الشروط التالية لتشغيل خدمات التلفزيون.", "يمكنك تغيير إجاباتك لاحقًا من الإعدادات.",
              "الموافقة على الكل", "التالي"),
        _item("tnc", _content("main", 1), "ar", "شروط الاستخدام", "قواعد استخدام تارفو هوم.",
              "١. استخدام الخدمات.\n٢. حسابك.\n٣. تغيير هذه الشروط.", "موافق", "غير موافق"),
        _item("service_request", _content("menu", 1, pnp=False, only_notice="yes"), "ar", "إشعار الدعم عن بعد",
              "قد يتصل فريق الدعم بالتلفزيون عندما تطلب المساعدة.", "لا تتم مشاركة أي شيء قبل بدء جلسة الدعم.",
              "حسنًا"),
    ],
}
