// A series name: it is translated with a field key, or fails in one of the two known ways.
#include "pelorus/translate/series_translator.h"

#include "fuzz/fuzz.h"

namespace fuzz {

void run(std::string_view input) {
  const translate::GraphiteSeriesTranslator translator;
  try {
    const auto translated = translator.translate(input);
    require(!translated.key.empty(), "the field key is not empty");
  } catch (const translate::GraphiteSeriesTranslationError& failure) {
    require(std::string_view(failure.what()).starts_with("Could not translate \"b"),
            "the failure names the series");
  } catch (const translate::UnexpectedSeriesError&) {
  }
}

}  // namespace fuzz
