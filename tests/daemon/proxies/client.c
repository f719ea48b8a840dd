/* A program of somebody who has made GLib's functions of the description of the interfaces. */

#include "settings.h"

#include <stdio.h>

#define NAME "org.tulo.ConfigurationManager1"
#define OBJECT "/org/tulo/ConfigurationManager1"

int main(int argc, char** argv)
{
    GError* error = NULL;
    GDBusConnection* bus =
        g_dbus_connection_new_for_address_sync(argv[argc - 1],
                                               G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                                   | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
                                               NULL, NULL, &error);
    g_assert_no_error(error);
    TuloConfigurationManager1* reader = tulo_configuration_manager1_proxy_new_sync(
        bus, G_DBUS_PROXY_FLAGS_NONE, NAME, OBJECT, NULL, &error);
    g_assert_no_error(error);
    TuloConfigurationManager1Change* changer = tulo_configuration_manager1_change_proxy_new_sync(
        bus, G_DBUS_PROXY_FLAGS_NONE, NAME, OBJECT, NULL, &error);
    g_assert_no_error(error);

    const gchar* roles[] = { "value", NULL };
    GVariant* values = NULL;
    tulo_configuration_manager1_call_get_data_sync(reader, "/settings/audio/volume", roles, &values,
                                                   NULL, &error);
    g_assert_no_error(error);
    GVariant* stored = NULL;
    GVariant* outcome = NULL;
    tulo_configuration_manager1_change_call_set_value_sync(
        changer, "/settings/audio/volume", g_variant_new_variant(g_variant_new_int32(60)),
        g_variant_new("a{sv}", NULL), &stored, &outcome, NULL, &error);
    g_assert_no_error(error);
    gint64 value = 0;
    g_variant_lookup(stored, "value", "x", &value);
    printf("%s %d %u\n", g_variant_print(values, FALSE), (int)value,
           tulo_configuration_manager1_get_unsaved_count(reader));
    return 0;
}
