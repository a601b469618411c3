// What the decoders share about libdvbpsi: its per-section decoders and a
// libdvbpsi section built from bytes.
#pragma once

// libdvbpsi's headers expect these before them.
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/sdt.h>

#include <string>

#include "ts_decode.h"

// libdvbpsi decodes one section at a time with these functions. Debian's
// libdvbpsi10 exports them (its symbols file lists them since 1.3.0), but
// the installed headers declare only the table decoders, which hand a table
// over once every one of its sections has arrived. A capture of a few
// seconds often lacks a section of a table (of the EIT schedule in
// particular: the French DTT capture of the tests loses 14 of its 346
// events that way), so each section is decoded as it arrives.
extern "C" {
bool dvbpsi_pat_sections_decode(dvbpsi_pat_t* pat, dvbpsi_psi_section_t* section);
void dvbpsi_pmt_sections_decode(dvbpsi_pmt_t* pmt, dvbpsi_psi_section_t* section);
void dvbpsi_sdt_sections_decode(dvbpsi_sdt_t* sdt, dvbpsi_psi_section_t* section);
void dvbpsi_eit_sections_decode(dvbpsi_eit_t* eit, dvbpsi_psi_section_t* section);
}

namespace ts::detail {

// A libdvbpsi section holding a copy of one long-form section's bytes,
// checked first: its length and form, its CRC, its table id (first_id to
// last_id) and a section_length of at least min_length. After a failed
// check get() is null and `skipped` has "<table> section skipped: why".
class PsiSection {
public:
    PsiSection(const uint8_t* data, std::size_t size, const char* table, uint8_t first_id,
               uint8_t last_id, uint16_t min_length, Skipped* skipped);
    ~PsiSection();
    PsiSection(const PsiSection&) = delete;
    PsiSection& operator=(const PsiSection&) = delete;
    dvbpsi_psi_section_t* get() const { return section_; }
    const SectionHeader& header() const { return header_; }

private:
    dvbpsi_psi_section_t* section_ = nullptr;
    SectionHeader header_;
};

// Adds "<table> section skipped: why" to `skipped` (may be null); false.
bool refuse(Skipped* skipped, const char* table, const std::string& why);

// "0x%02x" and friends.
std::string hex(unsigned value, int digits = 0);
// A text in double quotes, with \" \\ \n and \xNN escapes.
std::string quoted(const std::string& text);
// The three letters of an ISO 639 language or country code.
std::string code3(const uint8_t* bytes);

}  // namespace ts::detail
