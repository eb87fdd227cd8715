<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="pl_PL">
<context>
    <name>ZHazeOne2One</name>
    <message>
        <source>Haze is an atmospheric phenomenon that can affect outdoor photos. Everything far from the shooter seems to be covered by a white layer.This plugin helps you to remove the haze and clean your photo. To do that, it analyses each pixel to calculate the depth of air.</source>
        <translation>Efekt &quot;mgły&quot; jest to zjawisko atmosferyczne pojawiające się przy wykonywaniu zdjęć na zewnątrz. Obiekty znajdujące się w dalszej odległości wyglądają jak spowite mgłą. Ten plugin umożliwia ogranicznie tego efektu na zdjęciach.</translation>
    </message>
    <message>
        <source>_dehazed</source>
        <translation>_dehazed</translation>
    </message>
</context>
<context>
    <name>Library</name>
    <message>
        <source>Comment</source>
        <translation>Komentarz</translation>
    </message>
</context>
<context>
    <name>UIHazePreview</name>
    <message>
        <source>Preview is uptodate</source>
        <translation>Podgląd zaktualizowany</translation>
    </message>
    <message>
        <source>The preview failed:
%1</source>
        <translation>Podgląd nie powiódł się:
%1</translation>
    </message>
    <message>
        <source>unknown failure</source>
        <translation>nieznany błąd</translation>
    </message>
</context>
<context>
    <name>UIHazePreviewClass</name>
    <message>
        <source>Haze Correction</source>
        <translation>Korekta efektu &quot;mgły&quot;</translation>
    </message>
    <message>
        <source>Power</source>
        <translation>Poziom</translation>
    </message>
    <message>
        <source>Split preview</source>
        <translation>Zamień podgląd</translation>
    </message>
</context>
<context>
    <name>UIImageDefListWizard</name>
    <message>
        <source>Next</source>
        <translation>Następny</translation>
    </message>
    <message>
        <source>Prev</source>
        <translation>Poprzedni</translation>
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
        <translation>Zastosuj dla wszystkich zdjęć</translation>
    </message>
    <message>
        <source>WizardPage</source>
        <translation>Kreator</translation>
    </message>
</context>
</TS>
