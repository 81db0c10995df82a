// Server configuration library: country list, last term error, country setting.
// Stateless and callable from any thread; reads the device profile at each call.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Leaves *text null when the profile has no country list; otherwise a malloc'ed string.
int nimbra_get_countrylist(char** text);
// Leaves *value null when the profile has no term error; otherwise a malloc'ed string.
int nimbra_get_term_error(char** value);
// Writes vconf "db/nimbra/countrycode"; non-zero on success.
int nimbra_set_gpm_countrycode(const char* code);

#ifdef __cplusplus
}
#endif
