#include "Keytab.h"

#include <karst/Exceptions.h>

#include <algorithm>
#include <memory>

#include <krb5.h>

namespace quorad::admin {

namespace {

[[noreturn]] void fail(krb5_context context, krb5_error_code code) {
    const char* const message = krb5_get_error_message(context, code);
    const std::string text(message);
    krb5_free_error_message(context, message);
    TESSA_THROW(tessa::IOException, text);
}

std::vector<std::string> readAll(krb5_context context, krb5_keytab keytab) {
    krb5_kt_cursor cursor = nullptr;
    if (const krb5_error_code code = krb5_kt_start_seq_get(context, keytab, &cursor); code != 0) {
        fail(context, code);
    }
    std::vector<std::string> principals;
    krb5_keytab_entry entry{};
    krb5_error_code code = 0;
    while ((code = krb5_kt_next_entry(context, keytab, &entry, &cursor)) == 0) {
        char* name = nullptr;
        if (krb5_unparse_name(context, entry.principal, &name) == 0) {
            if (std::find(principals.begin(), principals.end(), name) == principals.end()) {
                principals.emplace_back(name);
            }
            krb5_free_unparsed_name(context, name);
        }
        krb5_free_keytab_entry_contents(context, &entry);
    }
    krb5_kt_end_seq_get(context, keytab, &cursor);
    if (code != KRB5_KT_END) {
        fail(context, code);
    }
    return principals;
}

} // namespace

std::vector<std::string> principalsOf(const std::string& path) {
    krb5_context context = nullptr;
    if (krb5_init_context(&context) != 0) {
        TESSA_THROW(tessa::IOException, "Kerberos cannot be used: is /etc/krb5.conf in order?");
    }
    const std::unique_ptr<_krb5_context, decltype(&krb5_free_context)> owner(context,
                                                                             &krb5_free_context);
    krb5_keytab keytab = nullptr;
    if (const krb5_error_code code = krb5_kt_resolve(context, ("FILE:" + path).c_str(), &keytab);
        code != 0) {
        fail(context, code);
    }
    const auto close = [context](krb5_keytab open) { krb5_kt_close(context, open); };
    const std::unique_ptr<_krb5_kt, decltype(close)> closer(keytab, close);
    return readAll(context, keytab);
}

} // namespace quorad::admin
