// A module that lacks g_service, for the host's refusal to serve it.
#include <string>

std::string g_service_name = "broken";
