// The named IPP constants against independent sources: operation and status
// names against the default dictionary as installed in the registry, value tags
// against the library's tag-name table, group tags against the message layer.
// A typo in a value (or a name given to the wrong number) fails here.
#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <string>

#include "cmp_ipp.h"
#include "cmp_ipp_dictionary.h"
#include "cmp_ipp_internal.h"

namespace {

struct Named {
    int value;
    const char* symbol;  // the constant's name after its prefix
};

// "Get-Printer-Attributes" -> "GET_PRINTER_ATTRIBUTES": how a constant is named
// from the dictionary's name of an operation or status code.
std::string symbolOf(const char* name) {
    std::string s(name);
    for (char& c : s) c = (c == '-') ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

#define OP(sym) {CMP_IPP_OP_##sym, #sym}
const Named kOperations[] = {
    OP(PRINT_JOB), OP(PRINT_URI), OP(VALIDATE_JOB), OP(CREATE_JOB), OP(SEND_DOCUMENT), OP(SEND_URI),
    OP(CANCEL_JOB), OP(GET_JOB_ATTRIBUTES), OP(GET_JOBS), OP(GET_PRINTER_ATTRIBUTES), OP(HOLD_JOB),
    OP(RELEASE_JOB), OP(RESTART_JOB), OP(PAUSE_PRINTER), OP(RESUME_PRINTER), OP(PURGE_JOBS),
    OP(SET_PRINTER_ATTRIBUTES), OP(SET_JOB_ATTRIBUTES), OP(GET_PRINTER_SUPPORTED_VALUES),
    OP(CREATE_PRINTER_SUBSCRIPTIONS), OP(CREATE_JOB_SUBSCRIPTIONS), OP(GET_SUBSCRIPTION_ATTRIBUTES),
    OP(GET_SUBSCRIPTIONS), OP(RENEW_SUBSCRIPTION), OP(CANCEL_SUBSCRIPTION), OP(GET_NOTIFICATIONS),
    OP(ENABLE_PRINTER), OP(DISABLE_PRINTER), OP(PAUSE_PRINTER_AFTER_CURRENT_JOB), OP(HOLD_NEW_JOBS),
    OP(RELEASE_HELD_NEW_JOBS), OP(DEACTIVATE_PRINTER), OP(ACTIVATE_PRINTER), OP(RESTART_PRINTER),
    OP(SHUTDOWN_PRINTER), OP(STARTUP_PRINTER), OP(REPROCESS_JOB), OP(CANCEL_CURRENT_JOB),
    OP(SUSPEND_CURRENT_JOB), OP(RESUME_JOB), OP(PROMOTE_JOB), OP(SCHEDULE_JOB_AFTER), OP(CANCEL_DOCUMENT),
    OP(GET_DOCUMENT_ATTRIBUTES), OP(GET_DOCUMENTS), OP(DELETE_DOCUMENT), OP(SET_DOCUMENT_ATTRIBUTES),
    OP(CANCEL_JOBS), OP(CANCEL_MY_JOBS), OP(RESUBMIT_JOB), OP(CLOSE_JOB), OP(IDENTIFY_PRINTER),
    OP(VALIDATE_DOCUMENT),
};
#undef OP

#define ST(sym) {CMP_IPP_STATUS_##sym, #sym}
const Named kStatuses[] = {
    ST(SUCCESSFUL_OK), ST(SUCCESSFUL_OK_IGNORED_OR_SUBSTITUTED_ATTRIBUTES),
    ST(SUCCESSFUL_OK_CONFLICTING_ATTRIBUTES), ST(SUCCESSFUL_OK_IGNORED_SUBSCRIPTIONS),
    ST(SUCCESSFUL_OK_TOO_MANY_EVENTS), ST(SUCCESSFUL_OK_EVENTS_COMPLETE),
    ST(CLIENT_ERROR_BAD_REQUEST), ST(CLIENT_ERROR_FORBIDDEN), ST(CLIENT_ERROR_NOT_AUTHENTICATED),
    ST(CLIENT_ERROR_NOT_AUTHORIZED), ST(CLIENT_ERROR_NOT_POSSIBLE), ST(CLIENT_ERROR_TIMEOUT),
    ST(CLIENT_ERROR_NOT_FOUND), ST(CLIENT_ERROR_GONE), ST(CLIENT_ERROR_REQUEST_ENTITY_TOO_LARGE),
    ST(CLIENT_ERROR_REQUEST_VALUE_TOO_LONG), ST(CLIENT_ERROR_DOCUMENT_FORMAT_NOT_SUPPORTED),
    ST(CLIENT_ERROR_ATTRIBUTES_OR_VALUES_NOT_SUPPORTED), ST(CLIENT_ERROR_URI_SCHEME_NOT_SUPPORTED),
    ST(CLIENT_ERROR_CHARSET_NOT_SUPPORTED), ST(CLIENT_ERROR_CONFLICTING_ATTRIBUTES),
    ST(CLIENT_ERROR_COMPRESSION_NOT_SUPPORTED), ST(CLIENT_ERROR_COMPRESSION_ERROR),
    ST(CLIENT_ERROR_DOCUMENT_FORMAT_ERROR), ST(CLIENT_ERROR_DOCUMENT_ACCESS_ERROR),
    ST(CLIENT_ERROR_ATTRIBUTES_NOT_SETTABLE), ST(CLIENT_ERROR_IGNORED_ALL_SUBSCRIPTIONS),
    ST(CLIENT_ERROR_TOO_MANY_SUBSCRIPTIONS), ST(CLIENT_ERROR_DOCUMENT_PASSWORD_ERROR),
    ST(CLIENT_ERROR_DOCUMENT_PERMISSION_ERROR), ST(CLIENT_ERROR_DOCUMENT_SECURITY_ERROR),
    ST(CLIENT_ERROR_DOCUMENT_UNPRINTABLE_ERROR), ST(CLIENT_ERROR_ACCOUNT_INFO_NEEDED),
    ST(CLIENT_ERROR_ACCOUNT_CLOSED), ST(CLIENT_ERROR_ACCOUNT_LIMIT_REACHED),
    ST(CLIENT_ERROR_ACCOUNT_AUTHORIZATION_FAILED), ST(CLIENT_ERROR_NOT_FETCHABLE),
    ST(SERVER_ERROR_INTERNAL_ERROR), ST(SERVER_ERROR_OPERATION_NOT_SUPPORTED),
    ST(SERVER_ERROR_SERVICE_UNAVAILABLE), ST(SERVER_ERROR_VERSION_NOT_SUPPORTED), ST(SERVER_ERROR_DEVICE_ERROR),
    ST(SERVER_ERROR_TEMPORARY_ERROR), ST(SERVER_ERROR_NOT_ACCEPTING_JOBS), ST(SERVER_ERROR_BUSY),
    ST(SERVER_ERROR_JOB_CANCELED), ST(SERVER_ERROR_MULTIPLE_DOCUMENT_JOBS_NOT_SUPPORTED),
    ST(SERVER_ERROR_PRINTER_IS_DEACTIVATED), ST(SERVER_ERROR_TOO_MANY_JOBS), ST(SERVER_ERROR_TOO_MANY_DOCUMENTS),
};
#undef ST

// Each constant names the operation or status the installed dictionary gives
// its number, and every operation and status of the dictionary has a constant.
template <typename Row>
void expectSameSet(const Named* named, size_t count, const char* (*nameOf)(uint16_t), const Row* rows,
                   int16_t rowCount, const char* Row::*rowName) {
    std::set<std::string> symbols;
    for (size_t i = 0; i < count; ++i) {
        EXPECT_EQ(symbolOf(nameOf(static_cast<uint16_t>(named[i].value))), named[i].symbol)
            << "value 0x" << std::hex << named[i].value;
        symbols.insert(named[i].symbol);
    }
    for (int16_t i = 0; i < rowCount; ++i) {
        EXPECT_EQ(symbols.count(symbolOf(rows[i].*rowName)), 1u) << "no constant for " << rows[i].*rowName;
    }
    EXPECT_EQ(symbols.size(), count) << "a constant is listed twice";
}

// The aliases (CMP_IPP_STATUS_OK, ...) are defined as these names, and their
// wire values are asserted where the service sends them.
TEST(Constants, OperationIdsAndStatusCodesMatchTheDictionary) {
    cmp_ipp_dictionary_install();
    int16_t n = 0;
    const cmp_ipp_operation_row_t* ops = cmp_ipp_dictionary_operation_table(&n);
    expectSameSet(kOperations, sizeof kOperations / sizeof kOperations[0], cmp_ipp_ipptable_op_name, ops, n,
                  &cmp_ipp_operation_row_t::name);
    const cmp_ipp_status_row_t* statuses = cmp_ipp_dictionary_status_table(&n);
    expectSameSet(kStatuses, sizeof kStatuses / sizeof kStatuses[0], cmp_ipp_ipptable_status_text, statuses, n,
                  &cmp_ipp_status_row_t::text);
}

// Value tags against the names the attribute model prints for them, group tags
// against the message layer's groups, the end tag against an encoded message.
TEST(Constants, TagsMatchTheTagNamesAndTheMessageLayer) {
    const struct {
        int16_t tag;
        const char* name;
    } values[] = {
        {CMP_IPP_TAG_UNSUPPORTED, "unsupported"}, {CMP_IPP_TAG_DEFAULT, "default"},
        {CMP_IPP_TAG_UNKNOWN, "unknown"}, {CMP_IPP_TAG_NOVALUE, "no-value"},
        {CMP_IPP_TAG_RESERVED, "reserved"}, {CMP_IPP_TAG_INTEGER, "integer"},
        {CMP_IPP_TAG_BOOLEAN, "boolean"}, {CMP_IPP_TAG_ENUM, "enum"},
        {CMP_IPP_TAG_OCTETSTRING, "octetString with an unspecified format"}, {CMP_IPP_TAG_DATETIME, "dateTime"},
        {CMP_IPP_TAG_RESOLUTION, "resolution"}, {CMP_IPP_TAG_RANGE, "rangeOfInteger"},
        {CMP_IPP_TAG_BEGIN_COLLECTION, "begCollection "}, {CMP_IPP_TAG_TEXTLANG, "textWithLanguage"},
        {CMP_IPP_TAG_NAMELANG, "nameWithLanguage"}, {CMP_IPP_TAG_END_COLLECTION, "endCollection"},
        {CMP_IPP_TAG_TEXT, "text"}, {CMP_IPP_TAG_NAME, "name"},
        {CMP_IPP_TAG_KEYWORD, "keyword"}, {CMP_IPP_TAG_URI, "uri"},
        {CMP_IPP_TAG_URISCHEME, "uriScheme"}, {CMP_IPP_TAG_CHARSET, "charset"},
        {CMP_IPP_TAG_LANGUAGE, "naturalLanguage"}, {CMP_IPP_TAG_MIMETYPE, "mimeMediaType"},
        {CMP_IPP_TAG_MEMBERNAME, "memberAttrName "}, {CMP_IPP_TAG_OCTET32K, "octet 32k"},
    };
    // Every row of the name table has its constant.
    EXPECT_EQ(sizeof values / sizeof values[0], sizeof cmp_ipp_attr_type_names / sizeof cmp_ipp_attr_type_names[0]);
    for (const auto& c : values) EXPECT_STREQ(cmp_ipp_attr_type_name(c.tag), c.name) << "tag 0x" << std::hex << c.tag;
    const struct {
        int16_t tag;
        const char* group;
    } groups[] = {
        {CMP_IPP_TAG_OPERATION_ATTRIBUTES, "Op"}, {CMP_IPP_TAG_JOB_ATTRIBUTES, "Job"},
        {CMP_IPP_TAG_PRINTER_ATTRIBUTES, "Printer"}, {CMP_IPP_TAG_UNSUPPORTED_ATTRIBUTES, "Unsupported"},
        {CMP_IPP_TAG_SUBSCRIPTION_ATTRIBUTES, "Subscription1"}, {CMP_IPP_TAG_EVENT_NOTIFICATION_ATTRIBUTES, "Event"},
    };
    for (const auto& c : groups) EXPECT_EQ(cmp_ipp_msg::groupToTag(c.group), c.tag) << c.group;
    cmp_ipp_msg msg;
    cmp_ipp_buf wire = msg.cmp_ipp_msg_encode();
    ASSERT_GT(wire.length(), 0u);
    EXPECT_EQ(wire.data()[wire.length() - 1], CMP_IPP_TAG_END_OF_ATTRIBUTES);
}

}  // namespace
