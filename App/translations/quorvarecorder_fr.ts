<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr">
<context>
    <name>quorva::MainWindow</name>
    <message>
        <source>About QuorvaRecorder</source>
        <translation>À propos de QuorvaRecorder</translation>
    </message>
    <message>
        <source>&lt;h3&gt;QuorvaRecorder %1&lt;/h3&gt;&lt;p&gt;Records up to eight live sources on one clock into QuickTime movies.&lt;/p&gt;</source>
        <translation>&lt;h3&gt;QuorvaRecorder %1&lt;/h3&gt;&lt;p&gt;Enregistre jusqu’à huit sources en direct sur une même horloge, dans des films QuickTime.&lt;/p&gt;</translation>
    </message>
    <message>
        <source>QuorvaRecorder</source>
        <translation>QuorvaRecorder</translation>
    </message>
    <message>
        <source>&amp;File</source>
        <translation>&amp;Fichier</translation>
    </message>
    <message>
        <source>Choose &amp;Folder…</source>
        <translation>Choisir le &amp;dossier…</translation>
    </message>
    <message>
        <source>&amp;Quit</source>
        <translation>&amp;Quitter</translation>
    </message>
    <message>
        <source>&amp;Recording</source>
        <translation>&amp;Enregistrement</translation>
    </message>
    <message>
        <source>&amp;Performance Mode</source>
        <translation>Mode &amp;performance</translation>
    </message>
    <message>
        <source>&amp;Language</source>
        <translation>&amp;Langue</translation>
    </message>
    <message>
        <source>As the System</source>
        <translation>Comme le système</translation>
    </message>
    <message>
        <source>&amp;Help</source>
        <translation>&amp;Aide</translation>
    </message>
    <message>
        <source>QuorvaRecorder &amp;Help</source>
        <translation>&amp;Aide de QuorvaRecorder</translation>
    </message>
    <message>
        <source>&amp;About QuorvaRecorder</source>
        <translation>À &amp;propos de QuorvaRecorder</translation>
    </message>
    <message>
        <source>Sources</source>
        <translation>Sources</translation>
    </message>
    <message>
        <source>Add to the Places</source>
        <translation>Ajouter aux emplacements</translation>
    </message>
    <message>
        <source>Places</source>
        <translation>Emplacements</translation>
    </message>
    <message>
        <source>Settings</source>
        <translation>Réglages</translation>
    </message>
    <message>
        <source>Codec</source>
        <translation>Codec</translation>
    </message>
    <message>
        <source>Width</source>
        <translation>Largeur</translation>
    </message>
    <message>
        <source>Height</source>
        <translation>Hauteur</translation>
    </message>
    <message>
        <source>Frame rate</source>
        <translation>Images par seconde</translation>
    </message>
    <message>
        <source>Bit rate</source>
        <translation>Débit</translation>
    </message>
    <message>
        <source>Output</source>
        <translation>Sortie</translation>
    </message>
    <message>
        <source>Layout</source>
        <translation>Disposition</translation>
    </message>
    <message>
        <source>Gap</source>
        <translation>Espacement</translation>
    </message>
    <message>
        <source>Sound</source>
        <translation>Son</translation>
    </message>
    <message>
        <source>Name</source>
        <translation>Nom</translation>
    </message>
    <message>
        <source>Folder</source>
        <translation>Dossier</translation>
    </message>
    <message>
        <source>Performance mode</source>
        <translation>Mode performance</translation>
    </message>
    <message>
        <source>While recording, the monitor shows ten pictures a second</source>
        <translation>Pendant l’enregistrement, le moniteur affiche dix images par seconde</translation>
    </message>
    <message>
        <source>The sources&apos; size</source>
        <translation>Taille des sources</translation>
    </message>
    <message>
        <source>Every frame</source>
        <translation>Toutes les images</translation>
    </message>
    <message>
        <source> fps</source>
        <translation> im/s</translation>
    </message>
    <message>
        <source>Automatic</source>
        <translation>Automatique</translation>
    </message>
    <message>
        <source> Mb/s</source>
        <translation> Mb/s</translation>
    </message>
    <message>
        <source> px</source>
        <translation> px</translation>
    </message>
    <message>
        <source>Named after the date</source>
        <translation>Nommé d’après la date</translation>
    </message>
    <message>
        <source>Choose…</source>
        <translation>Choisir…</translation>
    </message>
    <message>
        <source>One movie per source</source>
        <translation>Un film par source</translation>
    </message>
    <message>
        <source>Assembled movie</source>
        <translation>Film assemblé</translation>
    </message>
    <message>
        <source>Both</source>
        <translation>Les deux</translation>
    </message>
    <message>
        <source>Row</source>
        <translation>Ligne</translation>
    </message>
    <message>
        <source>Column</source>
        <translation>Colonne</translation>
    </message>
    <message>
        <source>Grid</source>
        <translation>Grille</translation>
    </message>
    <message>
        <source>Focus</source>
        <translation>Focus</translation>
    </message>
    <message>
        <source>No sound</source>
        <translation>Pas de son</translation>
    </message>
    <message>
        <source>The computer&apos;s sound</source>
        <translation>Le son de l’ordinateur</translation>
    </message>
    <message>
        <source>Start &amp;Recording</source>
        <translation>Démarrer l’&amp;enregistrement</translation>
    </message>
    <message>
        <source>Stop &amp;Recording</source>
        <translation>Arrêter l’&amp;enregistrement</translation>
    </message>
    <message>
        <source>named after the date</source>
        <translation>nommée d’après la date</translation>
    </message>
    <message>
        <source>Take %1 in %2</source>
        <translation>Prise %1 dans %2</translation>
    </message>
    <message>
        <source>Open the Last Take&apos;s &amp;Report</source>
        <translation>Ouvrir le &amp;rapport de la dernière prise</translation>
    </message>
    <message>
        <source>NDI on</source>
        <translation>NDI actif</translation>
    </message>
    <message>
        <source>NDI off</source>
        <translation>NDI inactif</translation>
    </message>
    <message>
        <source>OSC %1 · OSCQuery %2</source>
        <translation>OSC %1 · OSCQuery %2</translation>
    </message>
    <message>
        <source>Folder for the Movies</source>
        <translation>Dossier des films</translation>
    </message>
    <message>
        <source>QuorvaRecorder Help</source>
        <translation>Aide de QuorvaRecorder</translation>
    </message>
    <message>
        <source>&lt;h2&gt;QuorvaRecorder&lt;/h2&gt;&lt;p&gt;QuorvaRecorder records up to eight live sources on one clock: pictures that other programs publish through PipeWire, NDI sources on the network and its own test patterns. Add sources to the places, choose the settings and press Record (or Space). A take writes one movie per source, one movie of all of them assembled, or both; nothing is ever overwritten.&lt;/p&gt;&lt;p&gt;Everything can be driven remotely: OSC messages over UDP on port %1, and OSCQuery over HTTP on port %2, with these addresses:&lt;/p&gt;</source>
        <translation>&lt;h2&gt;QuorvaRecorder&lt;/h2&gt;&lt;p&gt;QuorvaRecorder enregistre jusqu’à huit sources en direct sur une même horloge : les images que d’autres programmes publient par PipeWire, les sources NDI du réseau et ses propres mires. Ajoutez des sources aux emplacements, choisissez les réglages et appuyez sur Enregistrer (ou Espace). Une prise écrit un film par source, un film de toutes les sources assemblées, ou les deux ; rien n’est jamais écrasé.&lt;/p&gt;&lt;p&gt;Tout se pilote à distance : messages OSC en UDP sur le port %1, et OSCQuery en HTTP sur le port %2, avec ces adresses :&lt;/p&gt;</translation>
    </message>
    <message>
        <source>Check for Updates…</source>
        <translation>Rechercher des mises à jour…</translation>
    </message>
    <message>
        <source>Auto-check updates</source>
        <translation>Rechercher les mises à jour automatiquement</translation>
    </message>
    <message>
        <source>&amp;Network Access…</source>
        <translation>Accès par le &amp;réseau…</translation>
    </message>
    <message>
        <source>Network Access</source>
        <translation>Accès par le réseau</translation>
    </message>
    <message>
        <source>every host</source>
        <translation>toutes les machines</translation>
    </message>
    <message>
        <source>every interface</source>
        <translation>toutes les interfaces</translation>
    </message>
    <message>
        <source>Hosts that may drive this recorder:</source>
        <translation>Machines qui peuvent piloter cet enregistreur :</translation>
    </message>
    <message>
        <source>Listen on the address:</source>
        <translation>Écouter à l’adresse :</translation>
    </message>
    <message>
        <source>“%1” is not an address or a network (address/prefix)</source>
        <translation>« %1 » n’est ni une adresse ni un réseau (adresse/préfixe)</translation>
    </message>
    <message>
        <source>“%1” is not an address of this machine</source>
        <translation>« %1 » n’est pas une adresse de cette machine</translation>
    </message>
    <message>
        <source>No source is recorded yet.

Add one: double-click it in the list of sources, or drag it onto the places below.</source>
        <translation>Aucune source n’est encore enregistrée.

Ajoutez-en une : double-cliquez dessus dans la liste des sources, ou faites-la glisser sur les emplacements ci-dessous.</translation>
    </message>
</context>
<context>
    <name>quorva::PlaceTile</name>
    <message>
        <source>%1 × %2 · %3 fps</source>
        <translation>%1 × %2 · %3 i/s</translation>
    </message>
    <message>
        <source>No picture yet</source>
        <translation>Pas encore d’image</translation>
    </message>
    <message>
        <source>● Live</source>
        <translation>● En direct</translation>
    </message>
    <message>
        <source>● No signal</source>
        <translation>● Pas de signal</translation>
    </message>
    <message>
        <source>● Held</source>
        <translation>● Figée</translation>
    </message>
    <message>
        <source>%1 dropped</source>
        <translation>%1 perdues</translation>
    </message>
    <message>
        <source>Pictures of this source that its movie dropped in the take</source>
        <translation>Images de cette source que son film a perdues pendant la prise</translation>
    </message>
    <message>
        <source>Drag to change the order; Delete removes the selected place</source>
        <translation>Faites glisser pour changer l’ordre ; Suppr retire l’emplacement sélectionné</translation>
    </message>
</context>
<context>
    <name>quorva::PlaceTiles</name>
    <message>
        <source>Add a source: double-click it in the list of sources, or drag it here</source>
        <translation>Ajoutez une source : double-cliquez dessus dans la liste des sources, ou faites-la glisser ici</translation>
    </message>
    <message>
        <source>Remove the Place</source>
        <translation>Retirer l’emplacement</translation>
    </message>
</context>
<context>
    <name>quorva::SoundMeterWidget</name>
    <message>
        <source>Sound level in dBFS: solid up to the RMS level, lighter up to the peak, with the highest peak of the last moment written beside it. The red light stays lit for two seconds after the sound clips.</source>
        <translation>Niveau sonore en dBFS : plein jusqu’au niveau RMS, plus clair jusqu’à la crête, avec la plus haute crête du moment écrite à côté. Le voyant rouge reste allumé deux secondes après un écrêtage.</translation>
    </message>
</context>
<context>
    <name>quorva::SourcesList</name>
    <message>
        <source>NDI</source>
        <translation>NDI</translation>
    </message>
    <message>
        <source>Test pattern</source>
        <translation>Mire</translation>
    </message>
    <message>
        <source>PipeWire</source>
        <translation>PipeWire</translation>
    </message>
</context>
<context>
    <name>quorva::TakePanel</name>
    <message>
        <source>Idle</source>
        <translation>Au repos</translation>
    </message>
    <message>
        <source>● Recording</source>
        <translation>● Enregistrement</translation>
    </message>
    <message>
        <source>Finishing…</source>
        <translation>Finalisation…</translation>
    </message>
    <message>
        <source>Record</source>
        <translation>Enregistrer</translation>
    </message>
    <message>
        <source>Stop</source>
        <translation>Arrêter</translation>
    </message>
    <message>
        <source>Starts and stops the take (Space)</source>
        <translation>Démarre et arrête la prise (Espace)</translation>
    </message>
    <message>
        <source>%1 min of disk</source>
        <translation>%1 min de disque</translation>
    </message>
    <message>
        <source>Minutes of these movies that the disk of the folder still holds</source>
        <translation>Minutes de ces films que le disque du dossier peut encore contenir</translation>
    </message>
    <message>
        <source>The computer&apos;s sound</source>
        <translation>Le son de l’ordinateur</translation>
    </message>
    <message>
        <source>%1 frames, %2 dropped</source>
        <translation>%1 images, %2 perdues</translation>
    </message>
    <message>
        <source>Add sources to the places, then press Record or Space</source>
        <translation>Ajoutez des sources aux emplacements, puis appuyez sur Enregistrer ou Espace</translation>
    </message>
    <message>
        <source>Last take “%1” · movies: %2 · pictures: %3 written, %4 held, %5 dropped</source>
        <translation>Dernière prise « %1 » · films : %2 · images : %3 écrites, %4 figées, %5 perdues</translation>
    </message>
    <message>
        <source>assembled movie at %1 frames a second</source>
        <translation>film assemblé à %1 images par seconde</translation>
    </message>
    <message>
        <source>Open the Report</source>
        <translation>Ouvrir le rapport</translation>
    </message>
    <message>
        <source>Last take lasted</source>
        <translation>Durée de la dernière prise</translation>
    </message>
    <message>
        <source>Elapsed</source>
        <translation>Écoulé</translation>
    </message>
    <message>
        <source>Its timecode began at</source>
        <translation>Son timecode a commencé à</translation>
    </message>
    <message>
        <source>Timecode</source>
        <translation>Timecode</translation>
    </message>
</context>
<context>
    <name>quorva::UpdateDialog</name>
    <message>
        <source>Close</source>
        <translation>Fermer</translation>
    </message>
</context>
</TS>
