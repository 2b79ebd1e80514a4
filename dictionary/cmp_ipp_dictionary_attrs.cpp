// Attribute rows, alternate value tags and the 1setOf list of the default
// dictionary, from RFC 8011 and the PWG IPP extensions (media-col, finishings-col,
// job and printer extension sets, IPP Everywhere) and RFC 3995/3996.
//
// Identifiers are grouped in blocks by the kind of attribute, so a trace that
// shows only an identifier still says where to look:
//   0x0001  operation attributes
//   0x0100  job template attributes with their -default and -supported forms
//   0x0300  job description and status attributes
//   0x0400  printer description and status attributes
//   0x0500  collection members
//   0x0600  subscription and event notification attributes
//
// Ranges follow the attribute's syntax: integer(a:b), enum(a:b) and
// rangeOfInteger(a:b) bound the value; text(n), name(n), keyword, uri(n),
// octetString(n), charset, naturalLanguage, uriScheme and mimeMediaType bound
// the length in bytes (MAX is 1023 for text, uri and octetString, 255 for name;
// keyword 1..255; mimeMediaType 255 as RFC 8011 allows). dateTime rows carry the
// 11-byte value length, resolution rows the bound of a positive cross-feed and
// feed resolution, collections 0..0; the library checks none of these three.
//
// The decoder accepts the registered tag and the first alternate tag of an
// identifier, nothing else. The alternates are the second syntax each attribute
// allows, chosen by what clients and printers send: keyword | name(MAX) for the
// media, bin, hold and sheet names; no-value for job times that are not reached
// yet and for unset defaults; unknown for a location or clock the printer does
// not know; rangeOfInteger for the integer | rangeOfInteger capabilities; and
// for text and name attributes without another alternate, the WithLanguage form
// that RFC 8010 allows for every text and name value.
#include "cmp_ipp_dictionary.h"

#include <cstddef>
#include <cstdint>

#include "attr/cmp_ipp_attr.h"
#include "cmp_ipp_dictionary_count.h"

namespace {

constexpr int16_t kInteger = CMP_IPP_TAG_INTEGER;
constexpr int16_t kBool = CMP_IPP_TAG_BOOLEAN;
constexpr int16_t kEnum = CMP_IPP_TAG_ENUM;
constexpr int16_t kOctet = CMP_IPP_TAG_OCTETSTRING;
constexpr int16_t kDateTime = CMP_IPP_TAG_DATETIME;
constexpr int16_t kResolution = CMP_IPP_TAG_RESOLUTION;
constexpr int16_t kRange = CMP_IPP_TAG_RANGE;
constexpr int16_t kCollection = CMP_IPP_TAG_BEGIN_COLLECTION;
constexpr int16_t kTextLang = CMP_IPP_TAG_TEXTLANG;
constexpr int16_t kNameLang = CMP_IPP_TAG_NAMELANG;
constexpr int16_t kText = CMP_IPP_TAG_TEXT;
constexpr int16_t kName = CMP_IPP_TAG_NAME;
constexpr int16_t kKeyword = CMP_IPP_TAG_KEYWORD;
constexpr int16_t kUri = CMP_IPP_TAG_URI;
constexpr int16_t kScheme = CMP_IPP_TAG_URISCHEME;
constexpr int16_t kCharset = CMP_IPP_TAG_CHARSET;
constexpr int16_t kLang = CMP_IPP_TAG_LANGUAGE;
constexpr int16_t kMime = CMP_IPP_TAG_MIMETYPE;
constexpr int16_t kNoValue = CMP_IPP_TAG_NOVALUE;
constexpr int16_t kUnknown = CMP_IPP_TAG_UNKNOWN;

constexpr int32_t kMin = INT32_MIN;
constexpr int32_t kMax = INT32_MAX;

const cmp_ipp_attr_row_t kAttrs[] = {
    // Operation attributes (RFC 8011, PWG 5100.11, 5100.13)
    {0x0001, "attributes-charset",                         kCharset,     0,   63},
    {0x0002, "attributes-natural-language",                kLang,        0,   63},
    {0x0003, "printer-uri",                                kUri,         0,   1023},
    {0x0004, "job-uri",                                    kUri,         0,   1023},
    {0x0005, "job-id",                                     kInteger,     1,   kMax},
    {0x0006, "document-uri",                               kUri,         0,   1023},
    {0x0007, "requesting-user-name",                       kName,        0,   255},
    {0x0008, "requesting-user-uri",                        kUri,         0,   1023},
    {0x0009, "requesting-user-vcard",                      kText,        0,   1023},
    {0x000A, "status-message",                             kText,        0,   255},
    {0x000B, "detailed-status-message",                    kText,        0,   1023},
    {0x000C, "document-access-error",                      kText,        0,   1023},
    {0x000D, "requested-attributes",                       kKeyword,     1,   255},
    {0x000E, "which-jobs",                                 kKeyword,     1,   255},
    {0x000F, "my-jobs",                                    kBool,        0,   1},
    {0x0010, "limit",                                      kInteger,     1,   kMax},
    {0x0011, "first-index",                                kInteger,     1,   kMax},
    {0x0012, "job-ids",                                    kInteger,     1,   kMax},
    {0x0013, "document-format",                            kMime,        0,   255},
    {0x0014, "document-name",                              kName,        0,   255},
    {0x0015, "document-natural-language",                  kLang,        0,   63},
    {0x0016, "document-number",                            kInteger,     1,   kMax},
    {0x0017, "compression",                                kKeyword,     1,   255},
    {0x0018, "ipp-attribute-fidelity",                     kBool,        0,   1},
    {0x0019, "job-name",                                   kName,        0,   255},
    {0x001A, "job-k-octets",                               kInteger,     0,   kMax},
    {0x001B, "job-impressions",                            kInteger,     0,   kMax},
    {0x001C, "job-media-sheets",                           kInteger,     0,   kMax},
    {0x001D, "last-document",                              kBool,        0,   1},
    {0x001E, "message",                                    kText,        0,   127},
    {0x001F, "job-password",                               kOctet,       0,   255},
    {0x0020, "job-password-encryption",                    kKeyword,     1,   255},
    {0x0021, "job-mandatory-attributes",                   kKeyword,     1,   255},
    {0x0022, "document-password",                          kOctet,       0,   1023},
    {0x0023, "preferred-attributes",                       kCollection,  0,   0},
    {0x0024, "original-requesting-user-name",              kName,        0,   255},
    {0x0025, "identify-actions",                           kKeyword,     1,   255},

    // Job template attributes with their -default and -supported forms (RFC 8011, PWG 5100.x)
    {0x0100, "job-priority",                               kInteger,     1,   100},
    {0x0101, "job-priority-default",                       kInteger,     1,   100},
    {0x0102, "job-priority-supported",                     kInteger,     1,   100},
    {0x0103, "job-hold-until",                             kKeyword,     1,   255},
    {0x0104, "job-hold-until-default",                     kKeyword,     1,   255},
    {0x0105, "job-hold-until-supported",                   kKeyword,     1,   255},
    {0x0106, "job-hold-until-time",                        kDateTime,    11,  11},
    {0x0107, "job-sheets",                                 kKeyword,     1,   255},
    {0x0108, "job-sheets-default",                         kKeyword,     1,   255},
    {0x0109, "job-sheets-supported",                       kKeyword,     1,   255},
    {0x010A, "job-sheets-col",                             kCollection,  0,   0},
    {0x010B, "job-sheets-col-default",                     kCollection,  0,   0},
    {0x010C, "job-sheets-col-supported",                   kKeyword,     1,   255},
    {0x010D, "multiple-document-handling",                 kKeyword,     1,   255},
    {0x010E, "multiple-document-handling-default",         kKeyword,     1,   255},
    {0x010F, "multiple-document-handling-supported",       kKeyword,     1,   255},
    {0x0110, "copies",                                     kInteger,     1,   kMax},
    {0x0111, "copies-default",                             kInteger,     1,   kMax},
    {0x0112, "copies-supported",                           kRange,       1,   kMax},
    {0x0113, "finishings",                                 kEnum,        3,   kMax},
    {0x0114, "finishings-default",                         kEnum,        3,   kMax},
    {0x0115, "finishings-supported",                       kEnum,        3,   kMax},
    {0x0116, "finishings-ready",                           kEnum,        3,   kMax},
    {0x0117, "finishings-col",                             kCollection,  0,   0},
    {0x0118, "finishings-col-default",                     kCollection,  0,   0},
    {0x0119, "finishings-col-supported",                   kKeyword,     1,   255},
    {0x011A, "finishings-col-ready",                       kCollection,  0,   0},
    {0x011B, "finishings-col-database",                    kCollection,  0,   0},
    {0x011C, "finishing-template-supported",               kKeyword,     1,   255},
    {0x011D, "page-ranges",                                kRange,       1,   kMax},
    {0x011E, "page-ranges-supported",                      kBool,        0,   1},
    {0x011F, "sides",                                      kKeyword,     1,   255},
    {0x0120, "sides-default",                              kKeyword,     1,   255},
    {0x0121, "sides-supported",                            kKeyword,     1,   255},
    {0x0122, "number-up",                                  kInteger,     1,   kMax},
    {0x0123, "number-up-default",                          kInteger,     1,   kMax},
    {0x0124, "number-up-supported",                        kInteger,     1,   kMax},
    {0x0125, "orientation-requested",                      kEnum,        3,   7},
    {0x0126, "orientation-requested-default",              kEnum,        3,   7},
    {0x0127, "orientation-requested-supported",            kEnum,        3,   7},
    {0x0128, "media",                                      kKeyword,     1,   255},
    {0x0129, "media-default",                              kKeyword,     1,   255},
    {0x012A, "media-supported",                            kKeyword,     1,   255},
    {0x012B, "media-ready",                                kKeyword,     1,   255},
    {0x012C, "media-col",                                  kCollection,  0,   0},
    {0x012D, "media-col-default",                          kCollection,  0,   0},
    {0x012E, "media-col-supported",                        kKeyword,     1,   255},
    {0x012F, "media-col-ready",                            kCollection,  0,   0},
    {0x0130, "media-col-database",                         kCollection,  0,   0},
    {0x0131, "printer-resolution",                         kResolution,  1,   kMax},
    {0x0132, "printer-resolution-default",                 kResolution,  1,   kMax},
    {0x0133, "printer-resolution-supported",               kResolution,  1,   kMax},
    {0x0134, "print-quality",                              kEnum,        3,   5},
    {0x0135, "print-quality-default",                      kEnum,        3,   5},
    {0x0136, "print-quality-supported",                    kEnum,        3,   5},
    {0x0137, "print-color-mode",                           kKeyword,     1,   255},
    {0x0138, "print-color-mode-default",                   kKeyword,     1,   255},
    {0x0139, "print-color-mode-supported",                 kKeyword,     1,   255},
    {0x013A, "print-content-optimize",                     kKeyword,     1,   255},
    {0x013B, "print-content-optimize-default",             kKeyword,     1,   255},
    {0x013C, "print-content-optimize-supported",           kKeyword,     1,   255},
    {0x013D, "print-rendering-intent",                     kKeyword,     1,   255},
    {0x013E, "print-rendering-intent-default",             kKeyword,     1,   255},
    {0x013F, "print-rendering-intent-supported",           kKeyword,     1,   255},
    {0x0140, "print-scaling",                              kKeyword,     1,   255},
    {0x0141, "print-scaling-default",                      kKeyword,     1,   255},
    {0x0142, "print-scaling-supported",                    kKeyword,     1,   255},
    {0x0143, "output-bin",                                 kKeyword,     1,   255},
    {0x0144, "output-bin-default",                         kKeyword,     1,   255},
    {0x0145, "output-bin-supported",                       kKeyword,     1,   255},
    {0x0146, "page-delivery",                              kKeyword,     1,   255},
    {0x0147, "page-delivery-default",                      kKeyword,     1,   255},
    {0x0148, "page-delivery-supported",                    kKeyword,     1,   255},
    {0x0149, "presentation-direction-number-up",           kKeyword,     1,   255},
    {0x014A, "presentation-direction-number-up-default",   kKeyword,     1,   255},
    {0x014B, "presentation-direction-number-up-supported", kKeyword,     1,   255},
    {0x014C, "feed-orientation",                           kKeyword,     1,   255},
    {0x014D, "feed-orientation-default",                   kKeyword,     1,   255},
    {0x014E, "feed-orientation-supported",                 kKeyword,     1,   255},
    {0x014F, "job-account-id",                             kName,        0,   255},
    {0x0150, "job-account-id-default",                     kName,        0,   255},
    {0x0151, "job-account-id-supported",                   kBool,        0,   1},
    {0x0152, "job-accounting-user-id",                     kName,        0,   255},
    {0x0153, "job-accounting-user-id-default",             kName,        0,   255},
    {0x0154, "job-accounting-user-id-supported",           kBool,        0,   1},
    {0x0155, "job-account-type",                           kKeyword,     1,   255},
    {0x0156, "job-account-type-default",                   kKeyword,     1,   255},
    {0x0157, "job-account-type-supported",                 kKeyword,     1,   255},
    {0x0158, "job-delay-output-until",                     kKeyword,     1,   255},
    {0x0159, "job-delay-output-until-default",             kKeyword,     1,   255},
    {0x015A, "job-delay-output-until-supported",           kKeyword,     1,   255},
    {0x015B, "job-delay-output-until-time",                kDateTime,    11,  11},
    {0x015C, "job-error-action",                           kKeyword,     1,   255},
    {0x015D, "job-error-action-default",                   kKeyword,     1,   255},
    {0x015E, "job-error-action-supported",                 kKeyword,     1,   255},
    {0x015F, "job-copies",                                 kInteger,     1,   kMax},
    {0x0160, "job-copies-default",                         kInteger,     1,   kMax},
    {0x0161, "job-copies-supported",                       kRange,       1,   kMax},
    {0x0162, "job-cancel-after",                           kInteger,     1,   kMax},
    {0x0163, "job-cancel-after-default",                   kInteger,     1,   kMax},
    {0x0164, "job-cancel-after-supported",                 kRange,       1,   kMax},
    {0x0165, "job-pages-per-set",                          kInteger,     1,   kMax},
    {0x0166, "job-pages-per-set-supported",                kBool,        0,   1},
    {0x0167, "job-phone-number",                           kUri,         0,   1023},
    {0x0168, "job-phone-number-default",                   kUri,         0,   1023},
    {0x0169, "job-phone-number-supported",                 kBool,        0,   1},
    {0x016A, "job-recipient-name",                         kName,        0,   255},
    {0x016B, "job-recipient-name-default",                 kName,        0,   255},
    {0x016C, "job-recipient-name-supported",               kBool,        0,   1},
    {0x016D, "job-sheet-message",                          kText,        0,   1023},
    {0x016E, "job-sheet-message-default",                  kText,        0,   1023},
    {0x016F, "job-sheet-message-supported",                kBool,        0,   1},
    {0x0170, "job-retain-until",                           kKeyword,     1,   255},
    {0x0171, "job-retain-until-default",                   kKeyword,     1,   255},
    {0x0172, "job-retain-until-supported",                 kKeyword,     1,   255},
    {0x0173, "job-retain-until-time",                      kDateTime,    11,  11},
    {0x0174, "overrides",                                  kCollection,  0,   0},
    {0x0175, "overrides-supported",                        kKeyword,     1,   255},
    {0x0176, "imposition-template",                        kKeyword,     1,   255},
    {0x0177, "imposition-template-default",                kKeyword,     1,   255},
    {0x0178, "imposition-template-supported",              kKeyword,     1,   255},
    {0x0179, "insert-sheet",                               kCollection,  0,   0},
    {0x017A, "insert-sheet-default",                       kCollection,  0,   0},
    {0x017B, "insert-sheet-supported",                     kKeyword,     1,   255},
    {0x017C, "separator-sheets",                           kCollection,  0,   0},
    {0x017D, "separator-sheets-default",                   kCollection,  0,   0},
    {0x017E, "separator-sheets-supported",                 kKeyword,     1,   255},
    {0x017F, "cover-back",                                 kCollection,  0,   0},
    {0x0180, "cover-back-default",                         kCollection,  0,   0},
    {0x0181, "cover-back-supported",                       kKeyword,     1,   255},
    {0x0182, "cover-front",                                kCollection,  0,   0},
    {0x0183, "cover-front-default",                        kCollection,  0,   0},
    {0x0184, "cover-front-supported",                      kKeyword,     1,   255},
    {0x0185, "proof-print",                                kCollection,  0,   0},
    {0x0186, "proof-print-default",                        kCollection,  0,   0},
    {0x0187, "proof-print-supported",                      kKeyword,     1,   255},
    {0x0188, "print-darkness",                             kInteger,     -100, 100},
    {0x0189, "print-darkness-default",                     kInteger,     -100, 100},
    {0x018A, "print-darkness-supported",                   kInteger,     0,   100},
    {0x018B, "x-image-position",                           kKeyword,     1,   255},
    {0x018C, "x-image-position-default",                   kKeyword,     1,   255},
    {0x018D, "x-image-position-supported",                 kKeyword,     1,   255},
    {0x018E, "x-image-shift",                              kInteger,     kMin, kMax},
    {0x018F, "x-image-shift-default",                      kInteger,     kMin, kMax},
    {0x0190, "x-image-shift-supported",                    kRange,       kMin, kMax},
    {0x0191, "x-side1-image-shift",                        kInteger,     kMin, kMax},
    {0x0192, "x-side1-image-shift-default",                kInteger,     kMin, kMax},
    {0x0193, "x-side1-image-shift-supported",              kRange,       kMin, kMax},
    {0x0194, "x-side2-image-shift",                        kInteger,     kMin, kMax},
    {0x0195, "x-side2-image-shift-default",                kInteger,     kMin, kMax},
    {0x0196, "x-side2-image-shift-supported",              kRange,       kMin, kMax},
    {0x0197, "y-image-position",                           kKeyword,     1,   255},
    {0x0198, "y-image-position-default",                   kKeyword,     1,   255},
    {0x0199, "y-image-position-supported",                 kKeyword,     1,   255},
    {0x019A, "y-image-shift",                              kInteger,     kMin, kMax},
    {0x019B, "y-image-shift-default",                      kInteger,     kMin, kMax},
    {0x019C, "y-image-shift-supported",                    kRange,       kMin, kMax},
    {0x019D, "y-side1-image-shift",                        kInteger,     kMin, kMax},
    {0x019E, "y-side1-image-shift-default",                kInteger,     kMin, kMax},
    {0x019F, "y-side1-image-shift-supported",              kRange,       kMin, kMax},
    {0x01A0, "y-side2-image-shift",                        kInteger,     kMin, kMax},
    {0x01A1, "y-side2-image-shift-default",                kInteger,     kMin, kMax},
    {0x01A2, "y-side2-image-shift-supported",              kRange,       kMin, kMax},

    // Job description and status attributes (RFC 8011, PWG 5100.7, 5100.11, 5100.13)
    {0x0300, "job-printer-uri",                            kUri,         0,   1023},
    {0x0301, "job-more-info",                              kUri,         0,   1023},
    {0x0302, "job-uuid",                                   kUri,         0,   45},
    {0x0303, "job-originating-user-name",                  kName,        0,   255},
    {0x0304, "job-originating-user-uri",                   kUri,         0,   1023},
    {0x0305, "job-state",                                  kEnum,        3,   9},
    {0x0306, "job-state-reasons",                          kKeyword,     1,   255},
    {0x0307, "job-state-message",                          kText,        0,   1023},
    {0x0308, "job-detailed-status-messages",               kText,        0,   1023},
    {0x0309, "job-document-access-errors",                 kText,        0,   1023},
    {0x030A, "job-message-from-operator",                  kText,        0,   127},
    {0x030B, "job-printer-up-time",                        kInteger,     1,   kMax},
    {0x030C, "job-printer-state-message",                  kText,        0,   1023},
    {0x030D, "job-printer-state-reasons",                  kKeyword,     1,   255},
    {0x030E, "job-attribute-fidelity",                     kBool,        0,   1},
    {0x030F, "job-processing-time",                        kInteger,     0,   kMax},
    {0x0310, "number-of-documents",                        kInteger,     0,   kMax},
    {0x0311, "number-of-intervening-jobs",                 kInteger,     0,   kMax},
    {0x0312, "output-device-assigned",                     kName,        0,   127},
    {0x0313, "time-at-creation",                           kInteger,     kMin, kMax},
    {0x0314, "time-at-processing",                         kInteger,     kMin, kMax},
    {0x0315, "time-at-completed",                          kInteger,     kMin, kMax},
    {0x0316, "date-time-at-creation",                      kDateTime,    11,  11},
    {0x0317, "date-time-at-processing",                    kDateTime,    11,  11},
    {0x0318, "date-time-at-completed",                     kDateTime,    11,  11},
    {0x0319, "job-k-octets-processed",                     kInteger,     0,   kMax},
    {0x031A, "job-impressions-completed",                  kInteger,     0,   kMax},
    {0x031B, "job-media-sheets-completed",                 kInteger,     0,   kMax},
    {0x031C, "job-pages",                                  kInteger,     0,   kMax},
    {0x031D, "job-pages-completed",                        kInteger,     0,   kMax},
    {0x031E, "job-pages-completed-current-copy",           kInteger,     0,   kMax},
    {0x031F, "impressions-completed-current-copy",         kInteger,     0,   kMax},
    {0x0320, "errors-count",                               kInteger,     0,   kMax},
    {0x0321, "warnings-count",                             kInteger,     0,   kMax},
    {0x0322, "compression-supplied",                       kKeyword,     1,   255},
    {0x0323, "document-format-supplied",                   kMime,        0,   255},
    {0x0324, "document-format-detected",                   kMime,        0,   255},
    {0x0325, "document-format-version-supplied",           kText,        0,   127},
    {0x0326, "document-name-supplied",                     kName,        0,   255},

    // Printer description and status attributes (RFC 8011, PWG 5100.7, 5100.11, 5100.13, 5100.14)
    {0x0400, "printer-uri-supported",                      kUri,         0,   1023},
    {0x0401, "uri-security-supported",                     kKeyword,     1,   255},
    {0x0402, "uri-authentication-supported",               kKeyword,     1,   255},
    {0x0403, "printer-name",                               kName,        0,   127},
    {0x0404, "printer-location",                           kText,        0,   127},
    {0x0405, "printer-info",                               kText,        0,   127},
    {0x0406, "printer-more-info",                          kUri,         0,   1023},
    {0x0407, "printer-driver-installer",                   kUri,         0,   1023},
    {0x0408, "printer-make-and-model",                     kText,        0,   127},
    {0x0409, "printer-more-info-manufacturer",             kUri,         0,   1023},
    {0x040A, "printer-state",                              kEnum,        3,   5},
    {0x040B, "printer-state-reasons",                      kKeyword,     1,   255},
    {0x040C, "printer-state-message",                      kText,        0,   1023},
    {0x040D, "printer-message-from-operator",              kText,        0,   127},
    {0x040E, "printer-is-accepting-jobs",                  kBool,        0,   1},
    {0x040F, "printer-up-time",                            kInteger,     1,   kMax},
    {0x0410, "printer-current-time",                       kDateTime,    11,  11},
    // The two *-change-time values are integer(1:MAX) on paper, but printers
    // report 0 until the first change.
    {0x0411, "printer-state-change-time",                  kInteger,     0,   kMax},
    {0x0412, "printer-state-change-date-time",             kDateTime,    11,  11},
    {0x0413, "printer-config-change-time",                 kInteger,     0,   kMax},
    {0x0414, "printer-config-change-date-time",            kDateTime,    11,  11},
    {0x0415, "printer-uuid",                               kUri,         0,   45},
    {0x0416, "printer-device-id",                          kText,        0,   1023},
    {0x0417, "printer-kind",                               kKeyword,     1,   255},
    {0x0418, "printer-geo-location",                       kUri,         0,   1023},
    {0x0419, "printer-icons",                              kUri,         0,   1023},
    {0x041A, "printer-organization",                       kText,        0,   1023},
    {0x041B, "printer-organizational-unit",                kText,        0,   1023},
    {0x041C, "printer-dns-sd-name",                        kName,        0,   63},
    {0x041D, "printer-id",                                 kInteger,     1,   65535},
    {0x041E, "printer-contact-col",                        kCollection,  0,   0},
    {0x041F, "printer-xri-supported",                      kCollection,  0,   0},
    {0x0420, "printer-charge-info",                        kText,        0,   1023},
    {0x0421, "printer-charge-info-uri",                    kUri,         0,   1023},
    {0x0422, "printer-strings-languages-supported",        kLang,        0,   63},
    {0x0423, "printer-strings-uri",                        kUri,         0,   1023},
    {0x0424, "printer-supply",                             kOctet,       0,   1023},
    {0x0425, "printer-supply-description",                 kText,        0,   1023},
    {0x0426, "printer-supply-info-uri",                    kUri,         0,   1023},
    {0x0427, "printer-input-tray",                         kOctet,       0,   1023},
    {0x0428, "printer-output-tray",                        kOctet,       0,   1023},
    {0x0429, "printer-alert",                              kOctet,       0,   1023},
    {0x042A, "printer-alert-description",                  kText,        0,   1023},
    {0x042B, "printer-finisher",                           kOctet,       0,   1023},
    {0x042C, "printer-finisher-description",               kText,        0,   1023},
    {0x042D, "printer-firmware-name",                      kName,        0,   255},
    {0x042E, "printer-firmware-string-version",            kText,        0,   1023},
    {0x042F, "printer-firmware-version",                   kOctet,       0,   64},
    {0x0430, "printer-impressions-completed",              kInteger,     0,   kMax},
    {0x0431, "printer-media-sheets-completed",             kInteger,     0,   kMax},
    {0x0432, "printer-pages-completed",                    kInteger,     0,   kMax},
    {0x0433, "device-service-count",                       kInteger,     1,   kMax},
    {0x0434, "device-uuid",                                kUri,         0,   45},
    {0x0435, "queued-job-count",                           kInteger,     0,   kMax},
    {0x0436, "pages-per-minute",                           kInteger,     0,   kMax},
    {0x0437, "pages-per-minute-color",                     kInteger,     0,   kMax},
    {0x0438, "color-supported",                            kBool,        0,   1},
    {0x0439, "ipp-versions-supported",                     kKeyword,     1,   255},
    {0x043A, "ipp-features-supported",                     kKeyword,     1,   255},
    {0x043B, "operations-supported",                       kEnum,        1,   65535},
    {0x043C, "multiple-document-jobs-supported",           kBool,        0,   1},
    {0x043D, "multiple-operation-time-out",                kInteger,     1,   kMax},
    {0x043E, "multiple-operation-time-out-action",         kKeyword,     1,   255},
    {0x043F, "charset-configured",                         kCharset,     0,   63},
    {0x0440, "charset-supported",                          kCharset,     0,   63},
    {0x0441, "natural-language-configured",                kLang,        0,   63},
    {0x0442, "generated-natural-language-supported",       kLang,        0,   63},
    {0x0443, "document-format-default",                    kMime,        0,   255},
    {0x0444, "document-format-supported",                  kMime,        0,   255},
    {0x0445, "document-format-details-supported",          kKeyword,     1,   255},
    {0x0446, "document-format-varying-attributes",         kKeyword,     1,   255},
    {0x0447, "document-access-supported",                  kKeyword,     1,   255},
    {0x0448, "document-password-supported",                kInteger,     0,   1023},
    {0x0449, "reference-uri-schemes-supported",            kScheme,      0,   63},
    {0x044A, "pdl-override-supported",                     kKeyword,     1,   255},
    {0x044B, "compression-supported",                      kKeyword,     1,   255},
    {0x044C, "job-k-octets-supported",                     kRange,       0,   kMax},
    {0x044D, "job-impressions-supported",                  kRange,       0,   kMax},
    {0x044E, "job-media-sheets-supported",                 kRange,       0,   kMax},
    {0x044F, "job-ids-supported",                          kBool,        0,   1},
    {0x0450, "which-jobs-supported",                       kKeyword,     1,   255},
    {0x0451, "job-creation-attributes-supported",          kKeyword,     1,   255},
    {0x0452, "job-settable-attributes-supported",          kKeyword,     1,   255},
    {0x0453, "printer-settable-attributes-supported",      kKeyword,     1,   255},
    {0x0454, "printer-get-attributes-supported",           kKeyword,     1,   255},
    {0x0455, "printer-mandatory-job-attributes",           kKeyword,     1,   255},
    {0x0456, "job-constraints-supported",                  kCollection,  0,   0},
    {0x0457, "job-resolvers-supported",                    kCollection,  0,   0},
    {0x0458, "job-presets-supported",                      kCollection,  0,   0},
    {0x0459, "job-password-supported",                     kInteger,     0,   255},
    {0x045A, "job-password-encryption-supported",          kKeyword,     1,   255},
    {0x045B, "job-spooling-supported",                     kKeyword,     1,   255},
    {0x045C, "identify-actions-default",                   kKeyword,     1,   255},
    {0x045D, "identify-actions-supported",                 kKeyword,     1,   255},
    {0x045E, "preferred-attributes-supported",             kBool,        0,   1},
    {0x045F, "urf-supported",                              kKeyword,     1,   255},
    {0x0460, "pwg-raster-document-resolution-supported",   kResolution,  1,   kMax},
    {0x0461, "pwg-raster-document-sheet-back",             kKeyword,     1,   255},
    {0x0462, "pwg-raster-document-type-supported",         kKeyword,     1,   255},
    {0x0463, "pdf-versions-supported",                     kKeyword,     1,   255},
    {0x0464, "pdf-k-octets-supported",                     kRange,       0,   kMax},
    {0x0465, "jpeg-k-octets-supported",                    kRange,       0,   kMax},
    {0x0466, "jpeg-x-dimension-supported",                 kRange,       0,   65535},
    {0x0467, "jpeg-y-dimension-supported",                 kRange,       1,   65535},
    {0x0468, "media-bottom-margin-supported",              kInteger,     0,   kMax},
    {0x0469, "media-left-margin-supported",                kInteger,     0,   kMax},
    {0x046A, "media-right-margin-supported",               kInteger,     0,   kMax},
    {0x046B, "media-top-margin-supported",                 kInteger,     0,   kMax},
    {0x046C, "media-size-supported",                       kCollection,  0,   0},
    {0x046D, "media-source-supported",                     kKeyword,     1,   255},
    {0x046E, "media-type-supported",                       kKeyword,     1,   255},
    {0x046F, "media-color-supported",                      kKeyword,     1,   255},
    {0x0470, "media-key-supported",                        kKeyword,     1,   255},
    {0x0471, "media-front-coating-supported",              kKeyword,     1,   255},
    {0x0472, "media-back-coating-supported",               kKeyword,     1,   255},
    {0x0473, "media-grain-supported",                      kKeyword,     1,   255},
    {0x0474, "media-hole-count-supported",                 kRange,       0,   kMax},
    {0x0475, "media-info-supported",                       kBool,        0,   1},
    {0x0476, "media-order-count-supported",                kRange,       1,   kMax},
    {0x0477, "media-pre-printed-supported",                kKeyword,     1,   255},
    {0x0478, "media-recycled-supported",                   kKeyword,     1,   255},
    {0x0479, "media-thickness-supported",                  kRange,       1,   kMax},
    {0x047A, "media-tooth-supported",                      kKeyword,     1,   255},
    {0x047B, "media-weight-metric-supported",              kRange,       0,   kMax},

    // Collection members (media-col, media-size, finishings-col, overrides, covers and inserts, printer-xri-supported, printer-contact-col)
    {0x0500, "media-key",                                  kKeyword,     1,   255},
    {0x0501, "media-size",                                 kCollection,  0,   0},
    {0x0502, "media-size-name",                            kKeyword,     1,   255},
    {0x0503, "media-source",                               kKeyword,     1,   255},
    {0x0504, "media-type",                                 kKeyword,     1,   255},
    {0x0505, "media-color",                                kKeyword,     1,   255},
    {0x0506, "media-bottom-margin",                        kInteger,     0,   kMax},
    {0x0507, "media-left-margin",                          kInteger,     0,   kMax},
    {0x0508, "media-right-margin",                         kInteger,     0,   kMax},
    {0x0509, "media-top-margin",                           kInteger,     0,   kMax},
    {0x050A, "media-back-coating",                         kKeyword,     1,   255},
    {0x050B, "media-front-coating",                        kKeyword,     1,   255},
    {0x050C, "media-grain",                                kKeyword,     1,   255},
    {0x050D, "media-hole-count",                           kInteger,     0,   kMax},
    {0x050E, "media-info",                                 kText,        0,   255},
    {0x050F, "media-order-count",                          kInteger,     1,   kMax},
    {0x0510, "media-pre-printed",                          kKeyword,     1,   255},
    {0x0511, "media-recycled",                             kKeyword,     1,   255},
    {0x0512, "media-thickness",                            kInteger,     1,   kMax},
    {0x0513, "media-tooth",                                kKeyword,     1,   255},
    {0x0514, "media-weight-metric",                        kInteger,     0,   kMax},
    {0x0515, "media-source-properties",                    kCollection,  0,   0},
    {0x0516, "media-source-feed-direction",                kKeyword,     1,   255},
    {0x0517, "media-source-feed-orientation",              kEnum,        3,   6},
    {0x0518, "x-dimension",                                kInteger,     0,   kMax},
    {0x0519, "y-dimension",                                kInteger,     0,   kMax},
    {0x051A, "finishing-template",                         kKeyword,     1,   255},
    {0x051B, "media-sheets-supported",                     kRange,       1,   kMax},
    {0x051C, "stitching",                                  kCollection,  0,   0},
    {0x051D, "stitching-angle",                            kInteger,     0,   359},
    {0x051E, "stitching-locations",                        kInteger,     0,   kMax},
    {0x051F, "stitching-method",                           kKeyword,     1,   255},
    {0x0520, "stitching-offset",                           kInteger,     0,   kMax},
    {0x0521, "stitching-reference-edge",                   kKeyword,     1,   255},
    {0x0522, "punching",                                   kCollection,  0,   0},
    {0x0523, "punching-locations",                         kInteger,     0,   kMax},
    {0x0524, "punching-offset",                            kInteger,     0,   kMax},
    {0x0525, "punching-reference-edge",                    kKeyword,     1,   255},
    {0x0526, "folding",                                    kCollection,  0,   0},
    {0x0527, "folding-direction",                          kKeyword,     1,   255},
    {0x0528, "folding-offset",                             kInteger,     0,   kMax},
    {0x0529, "folding-reference-edge",                     kKeyword,     1,   255},
    {0x052A, "trimming",                                   kCollection,  0,   0},
    {0x052B, "trimming-offset",                            kInteger,     0,   kMax},
    {0x052C, "trimming-reference-edge",                    kKeyword,     1,   255},
    {0x052D, "trimming-type",                              kKeyword,     1,   255},
    {0x052E, "trimming-when",                              kKeyword,     1,   255},
    {0x052F, "baling",                                     kCollection,  0,   0},
    {0x0530, "baling-type",                                kKeyword,     1,   255},
    {0x0531, "baling-when",                                kKeyword,     1,   255},
    {0x0532, "binding",                                    kCollection,  0,   0},
    {0x0533, "binding-reference-edge",                     kKeyword,     1,   255},
    {0x0534, "binding-type",                               kKeyword,     1,   255},
    {0x0535, "coating",                                    kCollection,  0,   0},
    {0x0536, "coating-sides",                              kKeyword,     1,   255},
    {0x0537, "coating-type",                               kKeyword,     1,   255},
    {0x0538, "covering",                                   kCollection,  0,   0},
    {0x0539, "covering-name",                              kKeyword,     1,   255},
    {0x053A, "laminating",                                 kCollection,  0,   0},
    {0x053B, "laminating-sides",                           kKeyword,     1,   255},
    {0x053C, "laminating-type",                            kKeyword,     1,   255},
    {0x053D, "pages",                                      kRange,       1,   kMax},
    {0x053E, "document-copies",                            kRange,       1,   kMax},
    {0x053F, "document-numbers",                           kRange,       1,   kMax},
    {0x0540, "insert-after-page-number",                   kInteger,     0,   kMax},
    {0x0541, "insert-count",                               kInteger,     0,   kMax},
    {0x0542, "separator-sheets-type",                      kKeyword,     1,   255},
    {0x0543, "cover-type",                                 kKeyword,     1,   255},
    {0x0544, "proof-print-copies",                         kInteger,     0,   kMax},
    {0x0545, "resolver-name",                              kName,        0,   255},
    {0x0546, "preset-name",                                kName,        0,   255},
    {0x0547, "xri-authentication",                         kKeyword,     1,   255},
    {0x0548, "xri-security",                               kKeyword,     1,   255},
    {0x0549, "xri-uri",                                    kUri,         0,   1023},
    {0x054A, "contact-name",                               kName,        0,   255},
    {0x054B, "contact-uri",                                kUri,         0,   1023},
    {0x054C, "contact-vcard",                              kText,        0,   1023},

    // Subscription and event notification attributes (RFC 3995, RFC 3996)
    {0x0600, "notify-subscription-id",                     kInteger,     1,   kMax},
    {0x0601, "notify-subscription-ids",                    kInteger,     1,   kMax},
    {0x0602, "notify-recipient-uri",                       kUri,         0,   1023},
    {0x0603, "notify-pull-method",                         kKeyword,     1,   255},
    {0x0604, "notify-events",                              kKeyword,     1,   255},
    {0x0605, "notify-lease-duration",                      kInteger,     0,   67108863},
    {0x0606, "notify-time-interval",                       kInteger,     0,   kMax},
    {0x0607, "notify-user-data",                           kOctet,       0,   63},
    {0x0608, "notify-charset",                             kCharset,     0,   63},
    {0x0609, "notify-natural-language",                    kLang,        0,   63},
    {0x060A, "notify-attributes",                          kKeyword,     1,   255},
    {0x060B, "notify-job-id",                              kInteger,     1,   kMax},
    {0x060C, "notify-printer-uri",                         kUri,         0,   1023},
    {0x060D, "notify-subscriber-user-name",                kName,        0,   255},
    {0x060E, "notify-subscriber-user-uri",                 kUri,         0,   1023},
    {0x060F, "notify-sequence-number",                     kInteger,     0,   kMax},
    {0x0610, "notify-sequence-numbers",                    kInteger,     1,   kMax},
    {0x0611, "notify-lease-expiration-time",               kInteger,     0,   kMax},
    {0x0612, "notify-status-code",                         kEnum,        0,   65535},
    {0x0613, "notify-subscribed-event",                    kKeyword,     1,   255},
    {0x0614, "notify-text",                                kText,        0,   1023},
    {0x0615, "notify-wait",                                kBool,        0,   1},
    {0x0616, "notify-get-interval",                        kInteger,     0,   kMax},
    {0x0617, "notify-printer-up-time",                     kInteger,     1,   kMax},
    {0x0618, "notify-events-default",                      kKeyword,     1,   255},
    {0x0619, "notify-events-supported",                    kKeyword,     1,   255},
    {0x061A, "notify-lease-duration-default",              kInteger,     0,   67108863},
    {0x061B, "notify-lease-duration-supported",            kInteger,     0,   67108863},
    {0x061C, "notify-max-events-supported",                kInteger,     2,   kMax},
    {0x061D, "notify-pull-method-supported",               kKeyword,     1,   255},
    {0x061E, "notify-schemes-supported",                   kScheme,      0,   63},
    {0x061F, "notify-attributes-supported",                kKeyword,     1,   255},
    {0x0620, "ippget-event-life",                          kInteger,     15,  kMax},

    // Second rows: the alternate tag of these attributes has a range of its own,
    // found by getNameIdMinMax through identifier and tag together. Every other
    // lookup takes the first row of an identifier, so these stay behind the main rows.
    {0x000A, "status-message",                             kTextLang,    0,   255},
    {0x001E, "message",                                    kTextLang,    0,   127},
    {0x0124, "number-up-supported",                        kRange,       1,   kMax},
    {0x030A, "job-message-from-operator",                  kTextLang,    0,   127},
    {0x0312, "output-device-assigned",                     kNameLang,    0,   127},
    {0x0325, "document-format-version-supplied",           kTextLang,    0,   127},
    {0x0403, "printer-name",                               kNameLang,    0,   127},
    {0x0404, "printer-location",                           kTextLang,    0,   127},
    {0x0405, "printer-info",                               kTextLang,    0,   127},
    {0x0408, "printer-make-and-model",                     kTextLang,    0,   127},
    {0x040D, "printer-message-from-operator",              kTextLang,    0,   127},
    {0x041C, "printer-dns-sd-name",                        kNameLang,    0,   63},
    {0x050E, "media-info",                                 kTextLang,    0,   255},
    {0x0518, "x-dimension",                                kRange,       1,   kMax},
    {0x0519, "y-dimension",                                kRange,       1,   kMax},
    {0x061B, "notify-lease-duration-supported",            kRange,       0,   67108863},
};

// One alternate per identifier: the decoder consults only the first.
const cmp_ipp_alt_type_row_t kAltTypes[] = {
    {0x0007, kNameLang,  0,   255},   // requesting-user-name
    {0x0009, kTextLang,  0,   1023},  // requesting-user-vcard
    {0x000A, kTextLang,  0,   255},   // status-message
    {0x000B, kTextLang,  0,   1023},  // detailed-status-message
    {0x000C, kTextLang,  0,   1023},  // document-access-error
    {0x0014, kNameLang,  0,   255},   // document-name
    {0x0019, kNameLang,  0,   255},   // job-name
    {0x001E, kTextLang,  0,   127},   // message
    {0x0020, kName,      0,   255},   // job-password-encryption
    {0x0024, kNameLang,  0,   255},   // original-requesting-user-name
    {0x0103, kName,      0,   255},   // job-hold-until
    {0x0104, kName,      0,   255},   // job-hold-until-default
    {0x0105, kName,      0,   255},   // job-hold-until-supported
    {0x0107, kName,      0,   255},   // job-sheets
    {0x0108, kName,      0,   255},   // job-sheets-default
    {0x0109, kName,      0,   255},   // job-sheets-supported
    {0x011C, kName,      0,   255},   // finishing-template-supported
    {0x0124, kRange,     1,   kMax},  // number-up-supported
    {0x0128, kName,      0,   255},   // media
    {0x0129, kName,      0,   255},   // media-default
    {0x012A, kName,      0,   255},   // media-supported
    {0x012B, kName,      0,   255},   // media-ready
    {0x0143, kName,      0,   255},   // output-bin
    {0x0144, kName,      0,   255},   // output-bin-default
    {0x0145, kName,      0,   255},   // output-bin-supported
    {0x014F, kNameLang,  0,   255},   // job-account-id
    {0x0150, kNoValue,   0,   0},     // job-account-id-default
    {0x0152, kNameLang,  0,   255},   // job-accounting-user-id
    {0x0153, kNoValue,   0,   0},     // job-accounting-user-id-default
    {0x0155, kName,      0,   255},   // job-account-type
    {0x0156, kName,      0,   255},   // job-account-type-default
    {0x0157, kName,      0,   255},   // job-account-type-supported
    {0x0158, kName,      0,   255},   // job-delay-output-until
    {0x0159, kName,      0,   255},   // job-delay-output-until-default
    {0x015A, kName,      0,   255},   // job-delay-output-until-supported
    {0x0168, kNoValue,   0,   0},     // job-phone-number-default
    {0x016A, kNameLang,  0,   255},   // job-recipient-name
    {0x016B, kNoValue,   0,   0},     // job-recipient-name-default
    {0x016D, kTextLang,  0,   1023},  // job-sheet-message
    {0x016E, kNoValue,   0,   0},     // job-sheet-message-default
    {0x0170, kName,      0,   255},   // job-retain-until
    {0x0171, kName,      0,   255},   // job-retain-until-default
    {0x0172, kName,      0,   255},   // job-retain-until-supported
    {0x0176, kName,      0,   255},   // imposition-template
    {0x0177, kName,      0,   255},   // imposition-template-default
    {0x0178, kName,      0,   255},   // imposition-template-supported
    {0x0303, kNameLang,  0,   255},   // job-originating-user-name
    {0x0307, kTextLang,  0,   1023},  // job-state-message
    {0x0308, kTextLang,  0,   1023},  // job-detailed-status-messages
    {0x0309, kTextLang,  0,   1023},  // job-document-access-errors
    {0x030A, kTextLang,  0,   127},   // job-message-from-operator
    {0x030C, kTextLang,  0,   1023},  // job-printer-state-message
    {0x0312, kNameLang,  0,   127},   // output-device-assigned
    {0x0314, kNoValue,   0,   0},     // time-at-processing
    {0x0315, kNoValue,   0,   0},     // time-at-completed
    {0x0317, kNoValue,   0,   0},     // date-time-at-processing
    {0x0318, kNoValue,   0,   0},     // date-time-at-completed
    {0x0325, kTextLang,  0,   127},   // document-format-version-supplied
    {0x0326, kNameLang,  0,   255},   // document-name-supplied
    {0x0403, kNameLang,  0,   127},   // printer-name
    {0x0404, kTextLang,  0,   127},   // printer-location
    {0x0405, kTextLang,  0,   127},   // printer-info
    {0x0408, kTextLang,  0,   127},   // printer-make-and-model
    {0x040C, kTextLang,  0,   1023},  // printer-state-message
    {0x040D, kTextLang,  0,   127},   // printer-message-from-operator
    {0x0410, kUnknown,   0,   0},     // printer-current-time
    {0x0416, kTextLang,  0,   1023},  // printer-device-id
    {0x0417, kName,      0,   255},   // printer-kind
    {0x0418, kUnknown,   0,   0},     // printer-geo-location
    {0x041A, kTextLang,  0,   1023},  // printer-organization
    {0x041B, kTextLang,  0,   1023},  // printer-organizational-unit
    {0x041C, kNameLang,  0,   63},    // printer-dns-sd-name
    {0x041E, kUnknown,   0,   0},     // printer-contact-col
    {0x0420, kTextLang,  0,   1023},  // printer-charge-info
    {0x0423, kNoValue,   0,   0},     // printer-strings-uri
    {0x0425, kTextLang,  0,   1023},  // printer-supply-description
    {0x042A, kTextLang,  0,   1023},  // printer-alert-description
    {0x042C, kTextLang,  0,   1023},  // printer-finisher-description
    {0x042D, kNameLang,  0,   255},   // printer-firmware-name
    {0x042E, kTextLang,  0,   1023},  // printer-firmware-string-version
    {0x045A, kName,      0,   255},   // job-password-encryption-supported
    {0x046D, kName,      0,   255},   // media-source-supported
    {0x046E, kName,      0,   255},   // media-type-supported
    {0x046F, kName,      0,   255},   // media-color-supported
    {0x0470, kName,      0,   255},   // media-key-supported
    {0x0471, kName,      0,   255},   // media-front-coating-supported
    {0x0472, kName,      0,   255},   // media-back-coating-supported
    {0x0473, kName,      0,   255},   // media-grain-supported
    {0x0477, kName,      0,   255},   // media-pre-printed-supported
    {0x0478, kName,      0,   255},   // media-recycled-supported
    {0x047A, kName,      0,   255},   // media-tooth-supported
    {0x0500, kName,      0,   255},   // media-key
    {0x0502, kName,      0,   255},   // media-size-name
    {0x0503, kName,      0,   255},   // media-source
    {0x0504, kName,      0,   255},   // media-type
    {0x0505, kName,      0,   255},   // media-color
    {0x050A, kName,      0,   255},   // media-back-coating
    {0x050B, kName,      0,   255},   // media-front-coating
    {0x050C, kName,      0,   255},   // media-grain
    {0x050E, kTextLang,  0,   255},   // media-info
    {0x0510, kName,      0,   255},   // media-pre-printed
    {0x0511, kName,      0,   255},   // media-recycled
    {0x0513, kName,      0,   255},   // media-tooth
    {0x0518, kRange,     1,   kMax},  // x-dimension
    {0x0519, kRange,     1,   kMax},  // y-dimension
    {0x051A, kName,      0,   255},   // finishing-template
    {0x0530, kName,      0,   255},   // baling-type
    {0x0537, kName,      0,   255},   // coating-type
    {0x0539, kName,      0,   255},   // covering-name
    {0x053C, kName,      0,   255},   // laminating-type
    {0x0545, kNameLang,  0,   255},   // resolver-name
    {0x0546, kNameLang,  0,   255},   // preset-name
    {0x054A, kNameLang,  0,   255},   // contact-name
    {0x054C, kTextLang,  0,   1023},  // contact-vcard
    {0x060D, kNameLang,  0,   255},   // notify-subscriber-user-name
    {0x0614, kTextLang,  0,   1023},  // notify-text
    {0x061B, kRange,     0,   67108863},  // notify-lease-duration-supported
};

const uint16_t kOneSetOf[] = {
    0x0009,  // requesting-user-vcard
    0x000D,  // requested-attributes
    0x0012,  // job-ids
    0x0021,  // job-mandatory-attributes
    0x0025,  // identify-actions
    0x0105,  // job-hold-until-supported
    0x0109,  // job-sheets-supported
    0x010C,  // job-sheets-col-supported
    0x010F,  // multiple-document-handling-supported
    0x0113,  // finishings
    0x0114,  // finishings-default
    0x0115,  // finishings-supported
    0x0116,  // finishings-ready
    0x0117,  // finishings-col
    0x0118,  // finishings-col-default
    0x0119,  // finishings-col-supported
    0x011A,  // finishings-col-ready
    0x011B,  // finishings-col-database
    0x011C,  // finishing-template-supported
    0x011D,  // page-ranges
    0x0121,  // sides-supported
    0x0124,  // number-up-supported
    0x0127,  // orientation-requested-supported
    0x012A,  // media-supported
    0x012B,  // media-ready
    0x012E,  // media-col-supported
    0x012F,  // media-col-ready
    0x0130,  // media-col-database
    0x0133,  // printer-resolution-supported
    0x0136,  // print-quality-supported
    0x0139,  // print-color-mode-supported
    0x013C,  // print-content-optimize-supported
    0x013F,  // print-rendering-intent-supported
    0x0142,  // print-scaling-supported
    0x0145,  // output-bin-supported
    0x0148,  // page-delivery-supported
    0x014B,  // presentation-direction-number-up-supported
    0x014E,  // feed-orientation-supported
    0x0157,  // job-account-type-supported
    0x015A,  // job-delay-output-until-supported
    0x015E,  // job-error-action-supported
    0x0172,  // job-retain-until-supported
    0x0174,  // overrides
    0x0175,  // overrides-supported
    0x0178,  // imposition-template-supported
    0x0179,  // insert-sheet
    0x017A,  // insert-sheet-default
    0x017B,  // insert-sheet-supported
    0x017E,  // separator-sheets-supported
    0x0181,  // cover-back-supported
    0x0184,  // cover-front-supported
    0x0187,  // proof-print-supported
    0x018D,  // x-image-position-supported
    0x0199,  // y-image-position-supported
    0x0306,  // job-state-reasons
    0x0308,  // job-detailed-status-messages
    0x0309,  // job-document-access-errors
    0x030D,  // job-printer-state-reasons
    0x0400,  // printer-uri-supported
    0x0401,  // uri-security-supported
    0x0402,  // uri-authentication-supported
    0x040B,  // printer-state-reasons
    0x0417,  // printer-kind
    0x0419,  // printer-icons
    0x041A,  // printer-organization
    0x041B,  // printer-organizational-unit
    0x041F,  // printer-xri-supported
    0x0422,  // printer-strings-languages-supported
    0x0424,  // printer-supply
    0x0425,  // printer-supply-description
    0x0427,  // printer-input-tray
    0x0428,  // printer-output-tray
    0x0429,  // printer-alert
    0x042A,  // printer-alert-description
    0x042B,  // printer-finisher
    0x042C,  // printer-finisher-description
    0x042D,  // printer-firmware-name
    0x042E,  // printer-firmware-string-version
    0x042F,  // printer-firmware-version
    0x0439,  // ipp-versions-supported
    0x043A,  // ipp-features-supported
    0x043B,  // operations-supported
    0x0440,  // charset-supported
    0x0442,  // generated-natural-language-supported
    0x0444,  // document-format-supported
    0x0445,  // document-format-details-supported
    0x0446,  // document-format-varying-attributes
    0x0447,  // document-access-supported
    0x0449,  // reference-uri-schemes-supported
    0x044B,  // compression-supported
    0x0450,  // which-jobs-supported
    0x0451,  // job-creation-attributes-supported
    0x0452,  // job-settable-attributes-supported
    0x0453,  // printer-settable-attributes-supported
    0x0454,  // printer-get-attributes-supported
    0x0455,  // printer-mandatory-job-attributes
    0x0456,  // job-constraints-supported
    0x0457,  // job-resolvers-supported
    0x0458,  // job-presets-supported
    0x045A,  // job-password-encryption-supported
    0x045C,  // identify-actions-default
    0x045D,  // identify-actions-supported
    0x045F,  // urf-supported
    0x0460,  // pwg-raster-document-resolution-supported
    0x0462,  // pwg-raster-document-type-supported
    0x0463,  // pdf-versions-supported
    0x0468,  // media-bottom-margin-supported
    0x0469,  // media-left-margin-supported
    0x046A,  // media-right-margin-supported
    0x046B,  // media-top-margin-supported
    0x046C,  // media-size-supported
    0x046D,  // media-source-supported
    0x046E,  // media-type-supported
    0x046F,  // media-color-supported
    0x0470,  // media-key-supported
    0x0471,  // media-front-coating-supported
    0x0472,  // media-back-coating-supported
    0x0473,  // media-grain-supported
    0x0474,  // media-hole-count-supported
    0x0476,  // media-order-count-supported
    0x0477,  // media-pre-printed-supported
    0x0478,  // media-recycled-supported
    0x0479,  // media-thickness-supported
    0x047A,  // media-tooth-supported
    0x047B,  // media-weight-metric-supported
    0x051E,  // stitching-locations
    0x0523,  // punching-locations
    0x0526,  // folding
    0x052A,  // trimming
    0x053D,  // pages
    0x053E,  // document-copies
    0x053F,  // document-numbers
    0x0542,  // separator-sheets-type
    0x054C,  // contact-vcard
    0x0601,  // notify-subscription-ids
    0x0604,  // notify-events
    0x060A,  // notify-attributes
    0x0610,  // notify-sequence-numbers
    0x0618,  // notify-events-default
    0x0619,  // notify-events-supported
    0x061B,  // notify-lease-duration-supported
    0x061D,  // notify-pull-method-supported
    0x061E,  // notify-schemes-supported
    0x061F,  // notify-attributes-supported
};

}  // namespace

extern "C" const cmp_ipp_attr_row_t* cmp_ipp_dictionary_attr_table(int16_t* count) {
    *count = countOf(kAttrs);
    return kAttrs;
}

extern "C" const cmp_ipp_alt_type_row_t* cmp_ipp_dictionary_alt_type_table(int16_t* count) {
    *count = countOf(kAltTypes);
    return kAltTypes;
}

extern "C" const uint16_t* cmp_ipp_dictionary_onesetof_table(int16_t* count) {
    *count = countOf(kOneSetOf);
    return kOneSetOf;
}
