// Operation names and status-code texts of the default dictionary, and the
// installer that hands all five tables to the registry.
#include "cmp_ipp_dictionary.h"

#include <cstddef>
#include <cstdint>

#include "cmp_ipp_dictionary_count.h"

namespace {

// RFC 8011, RFC 3995/3998 and the PWG operation extensions.
const cmp_ipp_operation_row_t kOperations[] = {
    {0x0002, "Print-Job"},
    {0x0003, "Print-URI"},
    {0x0004, "Validate-Job"},
    {0x0005, "Create-Job"},
    {0x0006, "Send-Document"},
    {0x0007, "Send-URI"},
    {0x0008, "Cancel-Job"},
    {0x0009, "Get-Job-Attributes"},
    {0x000A, "Get-Jobs"},
    {0x000B, "Get-Printer-Attributes"},
    {0x000C, "Hold-Job"},
    {0x000D, "Release-Job"},
    {0x000E, "Restart-Job"},
    {0x0010, "Pause-Printer"},
    {0x0011, "Resume-Printer"},
    {0x0012, "Purge-Jobs"},
    {0x0013, "Set-Printer-Attributes"},
    {0x0014, "Set-Job-Attributes"},
    {0x0015, "Get-Printer-Supported-Values"},
    {0x0016, "Create-Printer-Subscriptions"},
    {0x0017, "Create-Job-Subscriptions"},
    {0x0018, "Get-Subscription-Attributes"},
    {0x0019, "Get-Subscriptions"},
    {0x001A, "Renew-Subscription"},
    {0x001B, "Cancel-Subscription"},
    {0x001C, "Get-Notifications"},
    {0x0022, "Enable-Printer"},
    {0x0023, "Disable-Printer"},
    {0x0024, "Pause-Printer-After-Current-Job"},
    {0x0025, "Hold-New-Jobs"},
    {0x0026, "Release-Held-New-Jobs"},
    {0x0027, "Deactivate-Printer"},
    {0x0028, "Activate-Printer"},
    {0x0029, "Restart-Printer"},
    {0x002A, "Shutdown-Printer"},
    {0x002B, "Startup-Printer"},
    {0x002C, "Reprocess-Job"},
    {0x002D, "Cancel-Current-Job"},
    {0x002E, "Suspend-Current-Job"},
    {0x002F, "Resume-Job"},
    {0x0030, "Promote-Job"},
    {0x0031, "Schedule-Job-After"},
    {0x0033, "Cancel-Document"},
    {0x0034, "Get-Document-Attributes"},
    {0x0035, "Get-Documents"},
    {0x0036, "Delete-Document"},
    {0x0037, "Set-Document-Attributes"},
    {0x0038, "Cancel-Jobs"},
    {0x0039, "Cancel-My-Jobs"},
    {0x003A, "Resubmit-Job"},
    {0x003B, "Close-Job"},
    {0x003C, "Identify-Printer"},
    {0x003D, "Validate-Document"},
};

const cmp_ipp_status_row_t kStatuses[] = {
    // Successful
    {0x0000, "successful-ok"},
    {0x0001, "successful-ok-ignored-or-substituted-attributes"},
    {0x0002, "successful-ok-conflicting-attributes"},
    {0x0003, "successful-ok-ignored-subscriptions"},
    {0x0005, "successful-ok-too-many-events"},
    {0x0007, "successful-ok-events-complete"},

    // Client errors
    {0x0400, "client-error-bad-request"},
    {0x0401, "client-error-forbidden"},
    {0x0402, "client-error-not-authenticated"},
    {0x0403, "client-error-not-authorized"},
    {0x0404, "client-error-not-possible"},
    {0x0405, "client-error-timeout"},
    {0x0406, "client-error-not-found"},
    {0x0407, "client-error-gone"},
    {0x0408, "client-error-request-entity-too-large"},
    {0x0409, "client-error-request-value-too-long"},
    {0x040A, "client-error-document-format-not-supported"},
    {0x040B, "client-error-attributes-or-values-not-supported"},
    {0x040C, "client-error-uri-scheme-not-supported"},
    {0x040D, "client-error-charset-not-supported"},
    {0x040E, "client-error-conflicting-attributes"},
    {0x040F, "client-error-compression-not-supported"},
    {0x0410, "client-error-compression-error"},
    {0x0411, "client-error-document-format-error"},
    {0x0412, "client-error-document-access-error"},
    {0x0413, "client-error-attributes-not-settable"},
    {0x0414, "client-error-ignored-all-subscriptions"},
    {0x0415, "client-error-too-many-subscriptions"},
    {0x0418, "client-error-document-password-error"},
    {0x0419, "client-error-document-permission-error"},
    {0x041A, "client-error-document-security-error"},
    {0x041B, "client-error-document-unprintable-error"},
    {0x041C, "client-error-account-info-needed"},
    {0x041D, "client-error-account-closed"},
    {0x041E, "client-error-account-limit-reached"},
    {0x041F, "client-error-account-authorization-failed"},
    {0x0420, "client-error-not-fetchable"},

    // Server errors
    {0x0500, "server-error-internal-error"},
    {0x0501, "server-error-operation-not-supported"},
    {0x0502, "server-error-service-unavailable"},
    {0x0503, "server-error-version-not-supported"},
    {0x0504, "server-error-device-error"},
    {0x0505, "server-error-temporary-error"},
    {0x0506, "server-error-not-accepting-jobs"},
    {0x0507, "server-error-busy"},
    {0x0508, "server-error-job-canceled"},
    {0x0509, "server-error-multiple-document-jobs-not-supported"},
    {0x050A, "server-error-printer-is-deactivated"},
    {0x050B, "server-error-too-many-jobs"},
    {0x050C, "server-error-too-many-documents"},
};

}  // namespace

extern "C" const cmp_ipp_operation_row_t* cmp_ipp_dictionary_operation_table(int16_t* count) {
    *count = countOf(kOperations);
    return kOperations;
}

extern "C" const cmp_ipp_status_row_t* cmp_ipp_dictionary_status_table(int16_t* count) {
    *count = countOf(kStatuses);
    return kStatuses;
}

extern "C" void cmp_ipp_dictionary_install(void) {
    cmp_ipp_ipptable_def* reg = cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance();
    reg->m_attrTable = cmp_ipp_dictionary_attr_table(&reg->m_attrCount);
    reg->m_altTypeTable = cmp_ipp_dictionary_alt_type_table(&reg->m_altTypeCount);
    reg->m_oneSetOfTable = cmp_ipp_dictionary_onesetof_table(&reg->m_oneSetOfCount);
    reg->m_operationIdTable = cmp_ipp_dictionary_operation_table(&reg->m_operationIdCount);
    reg->m_statusCodeTable = cmp_ipp_dictionary_status_table(&reg->m_statusCodeCount);
    reg->reindex();
}
