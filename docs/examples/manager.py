#!/usr/bin/python3
"""A manager service whose collections hold one log. Takes the file org.kestrane.Manager1.xml."""
import datetime, os, shutil, signal, sys, threading
from gi.repository import Gio, GLib

NAME, PATH = "org.kestrane.Manager1", "/org/kestrane/Manager1"
SNAPSHOTS = os.environ.get("KESTRANE_ROOT", "") + "/var/wireless/Library/Logs/FaultDepot/Baseband/"
UNKNOWN_COMMAND, COLLECTION_FAILED = 0xE020E011 - 2**32, 0xE020E013 - 2**32  # they travel signed
state = "Starting"

def perform(command, request):
    """Status, text and reply."""
    if command == "GetTraceProperty":
        return 0, "", {"TracePropertyValue": GLib.Variant("s", "1")}
    if command != "TraceDumpState":
        return UNKNOWN_COMMAND, "no such command", {}
    compress = request.get("TraceDumpStatePerformCompression", True)
    isBaseband = request["TraceAction"] == "CollectBasebandLogs"
    kind = ("baseband" if compress else "bb-trace") if isBaseband else "telephony"
    timestamp = datetime.datetime.now().strftime("%Y-%m-%d-%H-%M-%S-%f")[:-3]
    folder = f"{SNAPSHOTS}log-bb-{timestamp}-{kind}"
    os.makedirs(folder)
    with open(folder + "/modem.log", "w") as log:  # here the logs are collected
        log.write(request.get("TraceDumpStateReason", "no reason") + "\n")
    if compress:
        shutil.make_archive(folder, "zip", folder)
        shutil.rmtree(folder)
    return 0, "", {"TimestampString": GLib.Variant("s", timestamp)}

def on_call(_bus, _sender, _path, _interface, _method, parameters, call):
    def answer():
        try:
            status, text, reply = perform(command, request)
        except Exception as error:  # who gets no answer waits for ever
            status, text, reply = COLLECTION_FAILED, str(error), {}
        call.return_value(GLib.Variant("(isv)", (status, text, GLib.Variant("a{sv}", reply))))
    _client, command, request = parameters.unpack()
    threading.Thread(target=answer).start()  # the state is told meanwhile

def change_state(new):
    global state
    state = new
    changes = GLib.Variant("(sa{sv}as)", (NAME, {"ServerState": GLib.Variant("s", state)}, []))
    bus.emit_signal(None, PATH, "org.freedesktop.DBus.Properties", "PropertiesChanged", changes)
    bus.flush_sync()

os.umask(0o027)  # logs are for the service's user and group
with open(sys.argv[1]) as xml:
    interface = Gio.DBusNodeInfo.new_for_xml(xml.read()).interfaces[0]
bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
bus.register_object(PATH, interface, on_call, lambda *_: GLib.Variant("s", state), None)
loop = GLib.MainLoop()
Gio.bus_own_name_on_connection(bus, NAME, Gio.BusNameOwnerFlags.DO_NOT_QUEUE,
                               lambda *_: change_state("Started"), lambda *_: loop.quit())
GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, lambda: (change_state("Stopping"), loop.quit()))
loop.run()
