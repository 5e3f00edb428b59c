// The gate's languages: every text a visitor reads is marked TR("...") and looked up through
// gettext in the catalogue of the language the visitor's browser prefers (Accept-Language),
// English when the visitor prefers none of the gate's.
#ifndef KOVASHARING_GATE_I18N_H
#define KOVASHARING_GATE_I18N_H

#include <string>

namespace kovagate {

// Chooses the language of this request from an Accept-Language header.
void ChooseLanguage(std::string const& accept_language);
// The chosen language's tag ("en", "de").
char const* Language();
// `text` in the chosen language.
char const* Translate(char const* text);
// `format` with each "{}" replaced by the next of `values`, in order.
std::string Fill(char const* format, std::initializer_list<std::string> values);

}  // namespace kovagate

#define TR(text) ::kovagate::Translate(text)
#define N_(text) text  // marked for the catalogue, translated where it is used

#endif
