<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>ZHazeOne2One</name>
    <message>
        <source>Haze is an atmospheric phenomenon that can affect outdoor photos. Everything far from the shooter seems to be covered by a white layer.This plugin helps you to remove the haze and clean your photo. To do that, it analyses each pixel to calculate the depth of air.</source>
        <translation>Dunst ist ein atmosphärisches Phänomen das Außenaufnahmen beeinflussen kann. Alles mit größerem Abstand scheint mit einem weißen Schleier versehen zu sein. Dieses Modul unterstützt bei der Entfernung von Dunst und der Bildverbesserung. Dafür wird jedes Pixel analysiert und die Tiefe der Luftschicht berechnet.</translation>
    </message>
    <message>
        <source>_dehazed</source>
        <translation>_entnebelt</translation>
    </message>
</context>
<context>
    <name>Library</name>
    <message>
        <source>Comment</source>
        <translation>Kommentar</translation>
    </message>
</context>
<context>
    <name>UIHazePreview</name>
    <message>
        <source>Preview is uptodate</source>
        <translation>Die Vorschau ist aktuell</translation>
    </message>
    <message>
        <source>The preview failed:
%1</source>
        <translation>Die Vorschau ist fehlgeschlagen:
%1</translation>
    </message>
    <message>
        <source>unknown failure</source>
        <translation>unbekannter Fehler</translation>
    </message>
</context>
<context>
    <name>UIHazePreviewClass</name>
    <message>
        <source>Haze Correction</source>
        <translation>Dunstkorrektur</translation>
    </message>
    <message>
        <source>Power</source>
        <translation>Stärke</translation>
    </message>
    <message>
        <source>Split preview</source>
        <translation>Geteilte Vorschau</translation>
    </message>
</context>
<context>
    <name>UIImageDefListWizard</name>
    <message>
        <source>Next</source>
        <translation>Nächstes</translation>
    </message>
    <message>
        <source>Prev</source>
        <translation>Vorheriges</translation>
    </message>
</context>
<context>
    <name>UIImageDefListWizardClass</name>
    <message>
        <source>...</source>
        <translation>...</translation>
    </message>
    <message>
        <source>Apply to all Images</source>
        <translation>Auf alle Bilder anwenden</translation>
    </message>
    <message>
        <source>WizardPage</source>
        <translation>Assistentenseite</translation>
    </message>
</context>
</TS>
