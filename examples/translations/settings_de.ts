<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE" sourcelanguage="en_GB">
<context>
    <name>@settings</name>
    <message>
        <source>Device name</source>
        <translation>Gerätename</translation>
    </message>
    <message>
        <source>The name under which this device appears to phones and in the home network.</source>
        <translation>Der Name, unter dem dieses Gerät auf Telefonen und im Heimnetz erscheint.</translation>
    </message>
    <message>
        <source>Initial setup complete</source>
        <translation>Ersteinrichtung abgeschlossen</translation>
    </message>
    <message>
        <source>Set by the welcome assistant when it has been through all of its pages.</source>
        <translation>Wird vom Willkommensassistenten gesetzt, wenn alle Seiten durchlaufen sind.</translation>
    </message>
</context>
<context>
    <name>@settings/audio</name>
    <message>
        <source>Volume</source>
        <translation>Lautstärke</translation>
    </message>
    <message>
        <source>Loudness of music, radio and films.</source>
        <translation>Lautstärke von Musik, Radio und Filmen.</translation>
    </message>
    <message>
        <source>The volume that the entertainment system plays at. Phone calls, voice guidance and warnings have volumes of their own.</source>
        <translation>Die Lautstärke, mit der das Unterhaltungssystem spielt. Telefongespräche, Sprachführung und Warnungen haben eigene Lautstärken.</translation>
    </message>
    <message>
        <source>%</source>
        <translation>%</translation>
    </message>
    <message>
        <source>Volume limit at start</source>
        <translation>Höchste Lautstärke beim Start</translation>
    </message>
    <message>
        <source>A louder volume is lowered to this one when the vehicle is started.</source>
        <translation>Eine höhere Lautstärke wird beim Starten des Fahrzeugs auf diesen Wert gesenkt.</translation>
    </message>
    <message>
        <source>Balance</source>
        <translation>Balance</translation>
    </message>
    <message>
        <source>Sound between left (negative) and right (positive).</source>
        <translation>Klang zwischen links (negativ) und rechts (positiv).</translation>
    </message>
    <message>
        <source>Fader</source>
        <translation>Fader</translation>
    </message>
    <message>
        <source>Sound between rear (negative) and front (positive).</source>
        <translation>Klang zwischen hinten (negativ) und vorn (positiv).</translation>
    </message>
    <message>
        <source>Loudness</source>
        <translation>Loudness</translation>
    </message>
    <message>
        <source>Lifts low and high tones at a low volume.</source>
        <translation>Hebt tiefe und hohe Töne bei geringer Lautstärke an.</translation>
    </message>
    <message>
        <source>Speed-dependent volume</source>
        <translation>Geschwindigkeitsabhängige Lautstärke</translation>
    </message>
    <message>
        <source>How strongly the volume rises with the speed of the vehicle.</source>
        <translation>Wie stark die Lautstärke mit der Geschwindigkeit des Fahrzeugs steigt.</translation>
    </message>
    <message>
        <source>Sound stage</source>
        <translation>Klangbühne</translation>
    </message>
    <message>
        <source>The seats that the sound is tuned for.</source>
        <translation>Die Plätze, auf die der Klang abgestimmt ist.</translation>
    </message>
    <message>
        <source>Order of sources</source>
        <translation>Reihenfolge der Quellen</translation>
    </message>
    <message>
        <source>The sources that the source button steps through.</source>
        <translation>Die Quellen, durch die die Quellentaste schaltet.</translation>
    </message>
</context>
<context>
    <name>@settings/audio/equalizer</name>
    <message>
        <source>Bass</source>
        <translation>Tiefen</translation>
    </message>
    <message>
        <source>Gain of the low tones.</source>
        <translation>Verstärkung der tiefen Töne.</translation>
    </message>
    <message>
        <source>dB</source>
        <translation>dB</translation>
    </message>
    <message>
        <source>Middle</source>
        <translation>Mitten</translation>
    </message>
    <message>
        <source>Gain of the middle tones.</source>
        <translation>Verstärkung der mittleren Töne.</translation>
    </message>
    <message>
        <source>Treble</source>
        <translation>Höhen</translation>
    </message>
    <message>
        <source>Gain of the high tones.</source>
        <translation>Verstärkung der hohen Töne.</translation>
    </message>
    <message>
        <source>Subwoofer</source>
        <translation>Subwoofer</translation>
    </message>
    <message>
        <source>Gain of the subwoofer.</source>
        <translation>Verstärkung des Subwoofers.</translation>
    </message>
    <message>
        <source>Enabled in vehicles that were ordered with the subwoofer in the boot.</source>
        <translation>Verfügbar in Fahrzeugen, die mit dem Subwoofer im Kofferraum bestellt wurden.</translation>
    </message>
</context>
<context>
    <name>@settings/audio/presets</name>
    <message>
        <source>Station preset</source>
        <translation>Senderspeicher</translation>
    </message>
    <message>
        <source>A stored radio station: band and frequency or service.</source>
        <translation>Ein gespeicherter Radiosender: Band und Frequenz oder Dienst.</translation>
    </message>
    <message>
        <source>Written as the band, a colon and the station: a frequency in MHz for FM, in kHz for AM, a service identifier for DAB.</source>
        <translation>Geschrieben als Band, Doppelpunkt und Sender: bei FM eine Frequenz in MHz, bei AM in kHz, bei DAB eine Dienstkennung.</translation>
    </message>
</context>
<context>
    <name>@settings/climate</name>
    <message>
        <source>Temperature, driver</source>
        <translation>Temperatur Fahrer</translation>
    </message>
    <message>
        <source>Temperature on the side of the driver.</source>
        <translation>Temperatur auf der Fahrerseite.</translation>
    </message>
    <message>
        <source>°C</source>
        <translation>°C</translation>
    </message>
    <message>
        <source>Temperature, passenger</source>
        <translation>Temperatur Beifahrer</translation>
    </message>
    <message>
        <source>Temperature on the side of the front passenger.</source>
        <translation>Temperatur auf der Beifahrerseite.</translation>
    </message>
    <message>
        <source>Automatic</source>
        <translation>Automatik</translation>
    </message>
    <message>
        <source>Fan and flaps follow the temperature that was set.</source>
        <translation>Gebläse und Klappen folgen der eingestellten Temperatur.</translation>
    </message>
    <message>
        <source>Fan speed</source>
        <translation>Gebläsestufe</translation>
    </message>
    <message>
        <source>Speed of the fan while automatic is off; 0 is off.</source>
        <translation>Stufe des Gebläses bei ausgeschalteter Automatik; 0 ist aus.</translation>
    </message>
    <message>
        <source>Air recirculation</source>
        <translation>Umluft</translation>
    </message>
    <message>
        <source>Keeps air from outside out of the cabin.</source>
        <translation>Hält Außenluft vom Innenraum fern.</translation>
    </message>
    <message>
        <source>Automatic closes the flap when the sensor smells exhaust gas.</source>
        <translation>Automatisch schließt die Klappe, wenn der Sensor Abgase wahrnimmt.</translation>
    </message>
    <message>
        <source>Seat heating, driver</source>
        <translation>Sitzheizung Fahrer</translation>
    </message>
    <message>
        <source>Level of the heating; 0 is off.</source>
        <translation>Stufe der Heizung; 0 ist aus.</translation>
    </message>
    <message>
        <source>Heated steering wheel</source>
        <translation>Lenkradheizung</translation>
    </message>
    <message>
        <source>Warms the rim of the steering wheel.</source>
        <translation>Wärmt den Lenkradkranz.</translation>
    </message>
    <message>
        <source>Departure times</source>
        <translation>Abfahrtszeiten</translation>
    </message>
    <message>
        <source>The cabin is brought to its temperature before these times of a working day.</source>
        <translation>Vor diesen Zeiten eines Arbeitstages wird der Innenraum auf Temperatur gebracht.</translation>
    </message>
</context>
<context>
    <name>@settings/connectivity</name>
    <message>
        <source>Offline mode</source>
        <translation>Offline-Modus</translation>
    </message>
    <message>
        <source>Switches off every radio link but the emergency call.</source>
        <translation>Schaltet alle Funkverbindungen außer dem Notruf aus.</translation>
    </message>
</context>
<context>
    <name>@settings/connectivity/bluetooth</name>
    <message>
        <source>Bluetooth</source>
        <translation>Bluetooth</translation>
    </message>
    <message>
        <source>Connects phones and players.</source>
        <translation>Verbindet Telefone und Abspielgeräte.</translation>
    </message>
    <message>
        <source>Connect automatically</source>
        <translation>Automatisch verbinden</translation>
    </message>
    <message>
        <source>Connects the device that was used last when the vehicle is started.</source>
        <translation>Verbindet beim Starten des Fahrzeugs das zuletzt benutzte Gerät.</translation>
    </message>
    <message>
        <source>Visible for</source>
        <translation>Sichtbar für</translation>
    </message>
    <message>
        <source>How long new devices can find the vehicle.</source>
        <translation>Wie lange neue Geräte das Fahrzeug finden können.</translation>
    </message>
    <message>
        <source>s</source>
        <translation>s</translation>
    </message>
    <message>
        <source>Pairing PIN</source>
        <translation>Kopplungs-PIN</translation>
    </message>
    <message>
        <source>Asked for by devices without a display.</source>
        <translation>Wird von Geräten ohne Anzeige verlangt.</translation>
    </message>
</context>
<context>
    <name>@settings/connectivity/bluetooth/paired-devices</name>
    <message>
        <source>Paired device</source>
        <translation>Gekoppeltes Gerät</translation>
    </message>
    <message>
        <source>The name that a paired device gave itself.</source>
        <translation>Der Name, den sich ein gekoppeltes Gerät selbst gab.</translation>
    </message>
</context>
<context>
    <name>@settings/connectivity/mobile</name>
    <message>
        <source>Mobile data</source>
        <translation>Mobile Daten</translation>
    </message>
    <message>
        <source>Uses the built-in modem for online services.</source>
        <translation>Benutzt das eingebaute Modem für Online-Dienste.</translation>
    </message>
    <message>
        <source>Data roaming</source>
        <translation>Daten-Roaming</translation>
    </message>
    <message>
        <source>Uses mobile data abroad; this may cost extra.</source>
        <translation>Benutzt mobile Daten im Ausland; dabei können Kosten entstehen.</translation>
    </message>
    <message>
        <source>Access point</source>
        <translation>Zugangspunkt</translation>
    </message>
    <message>
        <source>Access point name of the network operator.</source>
        <translation>Name des Zugangspunkts beim Netzbetreiber.</translation>
    </message>
    <message>
        <source>Monthly limit</source>
        <translation>Monatliche Grenze</translation>
    </message>
    <message>
        <source>Data after which online services are paused until the next month; 0 is no limit.</source>
        <translation>Datenmenge, nach der Online-Dienste bis zum nächsten Monat pausieren; 0 ist keine Grenze.</translation>
    </message>
    <message>
        <source>MB</source>
        <translation>MB</translation>
    </message>
</context>
<context>
    <name>@settings/connectivity/wifi</name>
    <message>
        <source>Wi-Fi</source>
        <translation>WLAN</translation>
    </message>
    <message>
        <source>Connects to known networks, for example at home.</source>
        <translation>Verbindet mit bekannten Netzen, zum Beispiel zu Hause.</translation>
    </message>
    <message>
        <source>Country</source>
        <translation>Land</translation>
    </message>
    <message>
        <source>Decides which channels may be used.</source>
        <translation>Bestimmt, welche Kanäle benutzt werden dürfen.</translation>
    </message>
    <message>
        <source>MAC address</source>
        <translation>MAC-Adresse</translation>
    </message>
    <message>
        <source>Hardware address of the radio.</source>
        <translation>Hardwareadresse des Funkmoduls.</translation>
    </message>
</context>
<context>
    <name>@settings/connectivity/wifi/hotspot</name>
    <message>
        <source>Hotspot</source>
        <translation>Hotspot</translation>
    </message>
    <message>
        <source>Shares the mobile connection of the vehicle.</source>
        <translation>Teilt die Mobilfunkverbindung des Fahrzeugs.</translation>
    </message>
    <message>
        <source>Network name</source>
        <translation>Netzwerkname</translation>
    </message>
    <message>
        <source>The name that passengers look for.</source>
        <translation>Der Name, nach dem Mitfahrende suchen.</translation>
    </message>
    <message>
        <source>Passphrase</source>
        <translation>Passwort</translation>
    </message>
    <message>
        <source>What passengers type to join the network.</source>
        <translation>Was Mitfahrende eingeben, um dem Netz beizutreten.</translation>
    </message>
    <message>
        <source>At least 8 and at most 63 characters from the printable ones of ASCII.</source>
        <translation>Mindestens 8 und höchstens 63 druckbare ASCII-Zeichen.</translation>
    </message>
    <message>
        <source>Band</source>
        <translation>Frequenzband</translation>
    </message>
    <message>
        <source>Frequency band of the hotspot.</source>
        <translation>Frequenzband des Hotspots.</translation>
    </message>
    <message>
        <source>GHz</source>
        <translation>GHz</translation>
    </message>
    <message>
        <source>Devices at most</source>
        <translation>Geräte höchstens</translation>
    </message>
    <message>
        <source>How many devices may join at the same time.</source>
        <translation>Wie viele Geräte gleichzeitig beitreten dürfen.</translation>
    </message>
    <message>
        <source>Switch off after</source>
        <translation>Abschalten nach</translation>
    </message>
    <message>
        <source>Time without a device after which the hotspot is switched off.</source>
        <translation>Zeit ohne verbundenes Gerät, nach der der Hotspot abgeschaltet wird.</translation>
    </message>
    <message>
        <source>min</source>
        <translation>min</translation>
    </message>
</context>
<context>
    <name>@settings/display</name>
    <message>
        <source>Brightness</source>
        <translation>Helligkeit</translation>
    </message>
    <message>
        <source>Brightness of the centre screen by day.</source>
        <translation>Helligkeit des mittleren Bildschirms bei Tag.</translation>
    </message>
    <message>
        <source>%</source>
        <translation>%</translation>
    </message>
    <message>
        <source>Brightness at night</source>
        <translation>Helligkeit bei Nacht</translation>
    </message>
    <message>
        <source>Brightness of the centre screen while the night design is shown.</source>
        <translation>Helligkeit des mittleren Bildschirms, solange das Nachtdesign gezeigt wird.</translation>
    </message>
    <message>
        <source>Contrast</source>
        <translation>Kontrast</translation>
    </message>
    <message>
        <source>Contrast of the centre screen; 1 is neutral.</source>
        <translation>Kontrast des mittleren Bildschirms; 1 ist neutral.</translation>
    </message>
    <message>
        <source>Design</source>
        <translation>Design</translation>
    </message>
    <message>
        <source>Colours of the user interface.</source>
        <translation>Farben der Bedienoberfläche.</translation>
    </message>
    <message>
        <source>Automatic follows the light sensor in the windscreen.</source>
        <translation>Automatisch folgt dem Lichtsensor in der Windschutzscheibe.</translation>
    </message>
    <message>
        <source>Screen off after</source>
        <translation>Bildschirm aus nach</translation>
    </message>
    <message>
        <source>Time without a touch after which the centre screen goes dark; 0 keeps it on.</source>
        <translation>Zeit ohne Berührung, nach der der mittlere Bildschirm dunkel wird; bei 0 bleibt er an.</translation>
    </message>
    <message>
        <source>s</source>
        <translation>s</translation>
    </message>
    <message>
        <source>Touch sounds</source>
        <translation>Berührungstöne</translation>
    </message>
    <message>
        <source>A short sound for each touch of a button.</source>
        <translation>Ein kurzer Ton bei jeder Berührung einer Schaltfläche.</translation>
    </message>
</context>
<context>
    <name>@settings/display/ambient-light</name>
    <message>
        <source>Ambient light</source>
        <translation>Ambientebeleuchtung</translation>
    </message>
    <message>
        <source>Lights up the cabin when it is dark.</source>
        <translation>Beleuchtet den Innenraum bei Dunkelheit.</translation>
    </message>
    <message>
        <source>Intensity</source>
        <translation>Intensität</translation>
    </message>
    <message>
        <source>Brightness of the ambient light.</source>
        <translation>Helligkeit der Ambientebeleuchtung.</translation>
    </message>
    <message>
        <source>%</source>
        <translation>%</translation>
    </message>
    <message>
        <source>Colour</source>
        <translation>Farbe</translation>
    </message>
    <message>
        <source>Colour of the ambient light, as red, green and blue.</source>
        <translation>Farbe der Ambientebeleuchtung, als Rot, Grün und Blau.</translation>
    </message>
</context>
<context>
    <name>@settings/display/instrument-cluster</name>
    <message>
        <source>Layout</source>
        <translation>Anordnung</translation>
    </message>
    <message>
        <source>Arrangement of the instruments.</source>
        <translation>Anordnung der Instrumente.</translation>
    </message>
    <message>
        <source>Accent colour</source>
        <translation>Akzentfarbe</translation>
    </message>
    <message>
        <source>Colour of needles and highlights, as red, green and blue.</source>
        <translation>Farbe von Zeigern und Hervorhebungen, als Rot, Grün und Blau.</translation>
    </message>
    <message>
        <source>Shown values</source>
        <translation>Gezeigte Werte</translation>
    </message>
    <message>
        <source>What the lower edge of the cluster shows, from left to right.</source>
        <translation>Was der untere Rand der Instrumententafel zeigt, von links nach rechts.</translation>
    </message>
    <message>
        <source>Shift light</source>
        <translation>Schaltblitz</translation>
    </message>
    <message>
        <source>Flashes shortly before the engine reaches its highest speed.</source>
        <translation>Blinkt kurz bevor der Motor seine Höchstdrehzahl erreicht.</translation>
    </message>
</context>
<context>
    <name>@settings/locale</name>
    <message>
        <source>Language</source>
        <translation>Sprache</translation>
    </message>
    <message>
        <source>Language of texts and announcements.</source>
        <translation>Sprache von Texten und Ansagen.</translation>
    </message>
    <message>
        <source>Time zone</source>
        <translation>Zeitzone</translation>
    </message>
    <message>
        <source>Used while the time is not taken from satellites.</source>
        <translation>Gilt, solange die Zeit nicht von Satelliten kommt.</translation>
    </message>
    <message>
        <source>Automatic time</source>
        <translation>Automatische Zeit</translation>
    </message>
    <message>
        <source>Takes time and time zone from satellites.</source>
        <translation>Übernimmt Zeit und Zeitzone von Satelliten.</translation>
    </message>
    <message>
        <source>Clock</source>
        <translation>Uhr</translation>
    </message>
    <message>
        <source>Hours counted to 12 or to 24.</source>
        <translation>Stunden bis 12 oder bis 24 gezählt.</translation>
    </message>
    <message>
        <source>First day of the week</source>
        <translation>Erster Tag der Woche</translation>
    </message>
    <message>
        <source>1 is Monday, 7 is Sunday.</source>
        <translation>1 ist Montag, 7 ist Sonntag.</translation>
    </message>
</context>
<context>
    <name>@settings/locale/units</name>
    <message>
        <source>Distance</source>
        <translation>Entfernung</translation>
    </message>
    <message>
        <source>Unit of distances and speeds.</source>
        <translation>Einheit von Entfernungen und Geschwindigkeiten.</translation>
    </message>
    <message>
        <source>Temperature</source>
        <translation>Temperatur</translation>
    </message>
    <message>
        <source>Unit of temperatures.</source>
        <translation>Einheit von Temperaturen.</translation>
    </message>
    <message>
        <source>Consumption</source>
        <translation>Verbrauch</translation>
    </message>
    <message>
        <source>Unit of the fuel consumption.</source>
        <translation>Einheit des Kraftstoffverbrauchs.</translation>
    </message>
    <message>
        <source>Tyre pressure</source>
        <translation>Reifendruck</translation>
    </message>
    <message>
        <source>Unit of the tyre pressure.</source>
        <translation>Einheit des Reifendrucks.</translation>
    </message>
</context>
<context>
    <name>@settings/navigation</name>
    <message>
        <source>Route type</source>
        <translation>Routenart</translation>
    </message>
    <message>
        <source>What a route is optimised for.</source>
        <translation>Worauf eine Route optimiert wird.</translation>
    </message>
    <message>
        <source>Avoid</source>
        <translation>Vermeiden</translation>
    </message>
    <message>
        <source>Kinds of roads that a route leaves out where it can.</source>
        <translation>Arten von Straßen, die eine Route nach Möglichkeit auslässt.</translation>
    </message>
    <message>
        <source>Voice guidance</source>
        <translation>Sprachführung</translation>
    </message>
    <message>
        <source>Announces manoeuvres.</source>
        <translation>Sagt Fahrmanöver an.</translation>
    </message>
    <message>
        <source>Voice volume</source>
        <translation>Lautstärke der Ansagen</translation>
    </message>
    <message>
        <source>Loudness of the announcements.</source>
        <translation>Lautstärke der Sprachansagen.</translation>
    </message>
    <message>
        <source>%</source>
        <translation>%</translation>
    </message>
    <message>
        <source>Map orientation</source>
        <translation>Kartenausrichtung</translation>
    </message>
    <message>
        <source>What lies at the top of the map.</source>
        <translation>Was auf der Karte oben liegt.</translation>
    </message>
    <message>
        <source>Traffic updates</source>
        <translation>Verkehrsmeldungen</translation>
    </message>
    <message>
        <source>Fetches the traffic situation over the mobile network.</source>
        <translation>Holt die Verkehrslage über das Mobilfunknetz.</translation>
    </message>
    <message>
        <source>Reroute when faster by</source>
        <translation>Umleiten bei Zeitgewinn ab</translation>
    </message>
    <message>
        <source>Time that another route must save before it is taken.</source>
        <translation>Zeit, die eine andere Route sparen muss, damit sie genommen wird.</translation>
    </message>
    <message>
        <source>min</source>
        <translation>min</translation>
    </message>
    <message>
        <source>Map version</source>
        <translation>Kartenstand</translation>
    </message>
    <message>
        <source>The map that is installed.</source>
        <translation>Die installierte Karte.</translation>
    </message>
</context>
<context>
    <name>@settings/navigation/favourites</name>
    <message>
        <source>Favourite place</source>
        <translation>Lieblingsort</translation>
    </message>
    <message>
        <source>A stored destination: latitude and longitude in degrees.</source>
        <translation>Ein gespeichertes Ziel: Breite und Länge in Grad.</translation>
    </message>
    <message>
        <source>°</source>
        <translation>°</translation>
    </message>
</context>
<context>
    <name>@settings/privacy</name>
    <message>
        <source>Share location</source>
        <translation>Standort teilen</translation>
    </message>
    <message>
        <source>Tells online services where the vehicle is.</source>
        <translation>Teilt Online-Diensten mit, wo das Fahrzeug ist.</translation>
    </message>
    <message>
        <source>The emergency call sends the location whatever is set here.</source>
        <translation>Der Notruf übermittelt den Standort unabhängig von dieser Einstellung.</translation>
    </message>
    <message>
        <source>Usage statistics</source>
        <translation>Nutzungsstatistik</translation>
    </message>
    <message>
        <source>Sends anonymous figures on the use of the system.</source>
        <translation>Sendet anonyme Zahlen zur Nutzung des Systems.</translation>
    </message>
    <message>
        <source>Keep trips for</source>
        <translation>Fahrten aufbewahren für</translation>
    </message>
    <message>
        <source>Age at which recorded trips are deleted; 0 records none.</source>
        <translation>Alter, in dem aufgezeichnete Fahrten gelöscht werden; bei 0 wird nichts aufgezeichnet.</translation>
    </message>
    <message>
        <source>days</source>
        <translation>Tage</translation>
    </message>
    <message>
        <source>Allowed services</source>
        <translation>Erlaubte Dienste</translation>
    </message>
    <message>
        <source>Online services that may read vehicle data.</source>
        <translation>Online-Dienste, die Fahrzeugdaten lesen dürfen.</translation>
    </message>
</context>
<context>
    <name>@settings/system</name>
    <message>
        <source>Serial number</source>
        <translation>Seriennummer</translation>
    </message>
    <message>
        <source>Serial number of the head unit.</source>
        <translation>Seriennummer der Zentraleinheit.</translation>
    </message>
    <message>
        <source>Software version</source>
        <translation>Softwarestand</translation>
    </message>
    <message>
        <source>The software that is running.</source>
        <translation>Die laufende Software.</translation>
    </message>
    <message>
        <source>Developer mode</source>
        <translation>Entwicklermodus</translation>
    </message>
    <message>
        <source>Opens the diagnostic port.</source>
        <translation>Öffnet den Diagnoseanschluss.</translation>
    </message>
    <message>
        <source>Enabled by the workshop with a diagnostic tool.</source>
        <translation>Wird von der Werkstatt mit einem Diagnosegerät freigeschaltet.</translation>
    </message>
</context>
<context>
    <name>@settings/system/power</name>
    <message>
        <source>Standby after</source>
        <translation>Bereitschaft nach</translation>
    </message>
    <message>
        <source>Time that the system stays on after the vehicle is switched off.</source>
        <translation>Zeit, die das System nach dem Abstellen des Fahrzeugs an bleibt.</translation>
    </message>
    <message>
        <source>min</source>
        <translation>min</translation>
    </message>
    <message>
        <source>Low battery below</source>
        <translation>Batterie schwach unter</translation>
    </message>
    <message>
        <source>Voltage of the battery below which comfort functions are switched off.</source>
        <translation>Batteriespannung, unter der Komfortfunktionen abgeschaltet werden.</translation>
    </message>
    <message>
        <source>V</source>
        <translation>V</translation>
    </message>
</context>
<context>
    <name>@settings/system/updates</name>
    <message>
        <source>Automatic updates</source>
        <translation>Automatische Updates</translation>
    </message>
    <message>
        <source>Downloads updates as soon as they are offered.</source>
        <translation>Lädt Updates, sobald sie angeboten werden.</translation>
    </message>
    <message>
        <source>Channel</source>
        <translation>Kanal</translation>
    </message>
    <message>
        <source>How tried and tested an update must be.</source>
        <translation>Wie erprobt ein Update sein muss.</translation>
    </message>
    <message>
        <source>Over Wi-Fi only</source>
        <translation>Nur über WLAN</translation>
    </message>
    <message>
        <source>Does not use mobile data for updates.</source>
        <translation>Benutzt keine mobilen Daten für Updates.</translation>
    </message>
</context>
<context>
    <name>@settings/system/updates/schedule</name>
    <message>
        <source>Days of the week</source>
        <translation>Wochentage</translation>
    </message>
    <message>
        <source>1 is Monday, 7 is Sunday.</source>
        <translation>1 ist Montag, 7 ist Sonntag.</translation>
    </message>
    <message>
        <source>Not before</source>
        <translation>Nicht vor</translation>
    </message>
    <message>
        <source>Earliest time of day.</source>
        <translation>Früheste Uhrzeit.</translation>
    </message>
    <message>
        <source>Time window</source>
        <translation>Zeitfenster</translation>
    </message>
    <message>
        <source>How long after the earliest time an installation may begin.</source>
        <translation>Wie lange nach der frühesten Uhrzeit eine Installation beginnen darf.</translation>
    </message>
    <message>
        <source>min</source>
        <translation>min</translation>
    </message>
    <message>
        <source>Minimum charge</source>
        <translation>Mindestladung</translation>
    </message>
    <message>
        <source>Charge of the battery below which nothing is installed.</source>
        <translation>Ladung der Batterie, unter der nichts installiert wird.</translation>
    </message>
    <message>
        <source>%</source>
        <translation>%</translation>
    </message>
</context>
<context>
    <name>@settings/vehicle</name>
    <message>
        <source>Vehicle identification number</source>
        <translation>Fahrzeug-Identifizierungsnummer</translation>
    </message>
    <message>
        <source>Written at the end of the production line.</source>
        <translation>Wird am Ende der Fertigungslinie geschrieben.</translation>
    </message>
    <message>
        <source>Drive mode</source>
        <translation>Fahrmodus</translation>
    </message>
    <message>
        <source>Tuning of engine, gearbox, steering and suspension.</source>
        <translation>Abstimmung von Motor, Getriebe, Lenkung und Fahrwerk.</translation>
    </message>
</context>
<context>
    <name>@settings/vehicle/assistance</name>
    <message>
        <source>Lane keeping</source>
        <translation>Spurhalten</translation>
    </message>
    <message>
        <source>Steers gently back before the vehicle leaves its lane.</source>
        <translation>Lenkt sanft zurück, bevor das Fahrzeug die Spur verlässt.</translation>
    </message>
    <message>
        <source>Following distance</source>
        <translation>Folgeabstand</translation>
    </message>
    <message>
        <source>Time that adaptive cruise control keeps to the vehicle ahead.</source>
        <translation>Zeit, die der Abstandstempomat zum Fahrzeug davor einhält.</translation>
    </message>
    <message>
        <source>s</source>
        <translation>s</translation>
    </message>
    <message>
        <source>Collision warning</source>
        <translation>Kollisionswarnung</translation>
    </message>
    <message>
        <source>How early the driver is warned.</source>
        <translation>Wie früh gewarnt wird.</translation>
    </message>
    <message>
        <source>Emergency braking</source>
        <translation>Notbremsung</translation>
    </message>
    <message>
        <source>Brakes when a collision can no longer be avoided by steering.</source>
        <translation>Bremst, wenn Ausweichen eine Kollision nicht mehr verhindert.</translation>
    </message>
    <message>
        <source>Required by type approval and always on.</source>
        <translation>Durch die Typgenehmigung vorgeschrieben und immer eingeschaltet.</translation>
    </message>
    <message>
        <source>Speed warning above limit by</source>
        <translation>Tempowarnung ab Überschreitung</translation>
    </message>
    <message>
        <source>Excess over the recognised speed limit that is tolerated without a warning.</source>
        <translation>Überschreitung des erkannten Tempolimits, die ohne Warnung bleibt.</translation>
    </message>
    <message>
        <source>km/h</source>
        <translation>km/h</translation>
    </message>
    <message>
        <source>Parking sensor volume</source>
        <translation>Lautstärke der Einparkhilfe</translation>
    </message>
    <message>
        <source>Loudness of the sounds that tell the distance while parking.</source>
        <translation>Lautstärke der Töne, die beim Einparken den Abstand angeben.</translation>
    </message>
    <message>
        <source>%</source>
        <translation>%</translation>
    </message>
    <message>
        <source>Trailer mode</source>
        <translation>Anhängerbetrieb</translation>
    </message>
    <message>
        <source>Adapts the rear sensors to a trailer.</source>
        <translation>Stellt die hinteren Sensoren auf einen Anhänger ein.</translation>
    </message>
    <message>
        <source>Enabled in vehicles with a tow bar.</source>
        <translation>Verfügbar in Fahrzeugen mit Anhängerkupplung.</translation>
    </message>
</context>
<context>
    <name>@settings/vehicle/doors</name>
    <message>
        <source>Lock from</source>
        <translation>Verriegeln ab</translation>
    </message>
    <message>
        <source>Speed from which the doors lock themselves; 0 leaves them unlocked.</source>
        <translation>Geschwindigkeit, ab der die Türen selbst verriegeln; bei 0 bleiben sie offen.</translation>
    </message>
    <message>
        <source>km/h</source>
        <translation>km/h</translation>
    </message>
    <message>
        <source>Unlocking</source>
        <translation>Entriegeln</translation>
    </message>
    <message>
        <source>What the first press of the key unlocks.</source>
        <translation>Was der erste Druck auf den Schlüssel entriegelt.</translation>
    </message>
    <message>
        <source>Fold mirrors</source>
        <translation>Spiegel anklappen</translation>
    </message>
    <message>
        <source>Folds the mirrors when the vehicle is locked.</source>
        <translation>Klappt beim Verriegeln die Spiegel an.</translation>
    </message>
</context>
<context>
    <name>@settings/vehicle/lighting</name>
    <message>
        <source>Coming-home light</source>
        <translation>Coming-Home-Licht</translation>
    </message>
    <message>
        <source>How long the headlights stay on after the vehicle is locked.</source>
        <translation>Wie lange die Scheinwerfer nach dem Verriegeln an bleiben.</translation>
    </message>
    <message>
        <source>s</source>
        <translation>s</translation>
    </message>
    <message>
        <source>High-beam assistant</source>
        <translation>Fernlichtassistent</translation>
    </message>
    <message>
        <source>Dips the headlights for oncoming traffic.</source>
        <translation>Blendet bei Gegenverkehr ab.</translation>
    </message>
    <message>
        <source>Welcome light</source>
        <translation>Begrüßungslicht</translation>
    </message>
    <message>
        <source>Lights up the surroundings when the vehicle is unlocked.</source>
        <translation>Beleuchtet die Umgebung beim Entriegeln.</translation>
    </message>
</context>
</TS>
