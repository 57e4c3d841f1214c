<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1">
<context>
    <name>AudioFile</name>
    <message>
        <location filename="../platform/av/AudioFile.cpp" line="+575"/>
        <source>Recording stopped: AIFF files can’t grow past 4 GB. Choose WAV or M4A for longer recordings.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>AudioInputDeviceEnumerator</name>
    <message>
        <location filename="../capture/AudioInputDeviceEnumerator.cpp" line="+39"/>
        <source>Unknown Device</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>BoundedBufferScheduler</name>
    <message>
        <location filename="../engine/BoundedBufferScheduler.cpp" line="+8"/>
        <source>Recording stopped because audio capture could not keep up.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>CoreAudioError</name>
    <message>
        <location filename="../capture/CoreAudioError.cpp" line="+8"/>
        <source>Audio system error %1 during %2</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>ProcessTapError</name>
    <message>
        <location filename="../capture/ProcessTapError.cpp" line="+10"/>
        <source>%1 has not played any audio yet. Start playback in it, then record again.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>QueuedFileWriter</name>
    <message>
        <location filename="../engine/QueuedFileWriter.cpp" line="+26"/>
        <source>Recording stopped because writing could not keep up.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+12"/>
        <source>Recording failed while preparing audio for writing.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+20"/>
        <source>Recording failed while writing the file.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>RecordingEngine</name>
    <message>
        <location filename="../engine/RecordingEngine.cpp" line="+135"/>
        <source>This source could not be opened for recording.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+60"/>
        <source>Could not create the folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+69"/>
        <source>Recording stopped because the audio output changed.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+86"/>
        <source>Its own file could not be created.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+37"/>
        <source>The source could not be routed to it.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+51"/>
        <source>Its own file is incomplete.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>RecordingEngineError</name>
    <message>
        <location filename="../engine/RecordingEngineError.cpp" line="+23"/>
        <source>No audio source could be started.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+12"/>
        <source>The mix could not be routed to the recording file.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Could not create the recording file.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>RecordingFormat</name>
    <message>
        <location filename="../engine/RecordingFormat.cpp" line="+32"/>
        <source>Normal — smaller files (AAC, .m4a)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Uncompressed — very large files (WAV, .wav)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Uncompressed — very large files (AIFF, .aiff)</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>RecordingSource</name>
    <message>
        <location filename="../engine/RecordingSource.cpp" line="+14"/>
        <source>System Audio</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::AboutSettingsView</name>
    <message>
        <location filename="../interface/AboutSettingsView.cpp" line="+46"/>
        <source>Version %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Record any audio on your computer.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::AppState</name>
    <message>
        <location filename="../app/AppState.cpp" line="+360"/>
        <source>Microphone access was denied. Allow it in your desktop’s privacy settings, under Microphone.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+147"/>
        <source>Recording saved to %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>No audio was received from %1 during this recording.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+158"/>
        <source>The recordings folder could not be created: %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>The recordings folder could not be opened.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::AppcastClient</name>
    <message>
        <location filename="../app/AppcastClient.cpp" line="+43"/>
        <source>The update check was cancelled.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>The update information could not be downloaded.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+66"/>
        <location line="+4"/>
        <source>The update information could not be read.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>It is not a list of releases.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::BrightwaveRecordApp</name>
    <message>
        <location filename="../shell/BrightwaveRecordApp.cpp" line="+103"/>
        <source>Brightwave Record Help</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Welcome to Brightwave Record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Settings</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::ChannelFader</name>
    <message>
        <location filename="../interface/ChannelFader.cpp" line="+30"/>
        <source>%1 percent</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::CheckForUpdatesCommand</name>
    <message>
        <location filename="../shell/CheckForUpdatesCommand.cpp" line="+8"/>
        <source>Check for Updates…</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::CheckForUpdatesView</name>
    <message>
        <location filename="../interface/CheckForUpdatesView.cpp" line="+8"/>
        <source>Check for Updates…</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::ContentView</name>
    <message>
        <location filename="../interface/ContentView.cpp" line="+50"/>
        <source>Hear the final mix</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+66"/>
        <source>Dismiss</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+123"/>
        <source>Play the mix being recorded (every source at its set volume, including microphones) through your speakers or headphones. Recorded apps are silenced at the speakers and replaced by this mix. When off, apps keep playing normally. Set before recording.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+47"/>
        <source>System</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Applications</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+14"/>
        <source>Search apps</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Search applications</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+14"/>
        <source>Microphones</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>No input devices found</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+18"/>
        <source>Recordings Folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Show the last recording in its folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+19"/>
        <source>Recording</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Starting…</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Saving…</source>
        <translation type="unfinished"></translation>
    </message>
    <message numerus="yes">
        <location line="+5"/>
        <source>Ready · %n source armed</source>
        <translation type="unfinished">
            <numerusform></numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <location line="+1"/>
        <source>Ready · %n sources armed</source>
        <translation type="unfinished">
            <numerusform></numerusform>
        </translation>
    </message>
    <message>
        <location line="+3"/>
        <source>First, tick a source below</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Select sources below</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+127"/>
        <source>Show in Folder</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::GeneralSettingsView</name>
    <message>
        <location filename="../interface/GeneralSettingsView.cpp" line="+79"/>
        <source>Recording format:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Also save each source as its own file</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+14"/>
        <source>Choose…</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>The format and folder can&apos;t change while a recording is in progress.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Recordings folder:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Updates:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+51"/>
        <source>Choose a Recordings Folder</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::HelpMenuButton</name>
    <message>
        <location filename="../shell/HelpMenuButton.cpp" line="+10"/>
        <source>Brightwave Record Help</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Welcome Tour…</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::HelpView</name>
    <message>
        <location filename="../interface/HelpView.cpp" line="+79"/>
        <source>How to record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+9"/>
        <source>Tick what you want to record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>In the list, choose System Audio to record everything you hear, or choose one or more individual apps. Add any microphones you want, and Brightwave Record mixes the selected sources into one file.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Press Record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>The round red button at the top left starts the recording. While recording, a timer also appears in the system tray — click it any time to stop.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Press Stop</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>The same button stops the recording. Your file is saved automatically — a green message shows where, and the Recordings Folder button at the bottom opens that folder.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+19"/>
        <source>What does “Hear the final mix” do?</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>When it is on, the apps you record are silenced and Brightwave Record plays the recorded mix instead, so you hear exactly what is going into the file: every source at its set volume, plus any microphones. When it is off, apps keep playing normally through your speakers, so recording a single app sounds the same either way.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+6"/>
        <source>What does “Also save each source as its own file” do?</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Beside the mix, every source of the recording gets a file of its own, named after the recording and the source, at its fader’s level — for editing a call or a podcast afterwards. The files start and end together with the mix, so they line up in any editor; a source that stayed silent gets a silent file. Turn it on in Settings → General.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Nothing is recorded / permission problems</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Brightwave Record records through PipeWire, your desktop’s audio service. If a recording can’t start, check that PipeWire is running; in a sandbox (Flatpak), allow the app audio access, and microphone access if you record your voice.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::MainWindow</name>
    <message>
        <location filename="../shell/MainWindow.cpp" line="+22"/>
        <source>Brightwave Record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>File</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Settings…</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Close Window</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Quit</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Help</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>About Brightwave Record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+19"/>
        <source>Recording · minimised: no system tray here</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Stop Recording</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+0"/>
        <source>Start Recording</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::MenuBarLabelView</name>
    <message>
        <location filename="../shell/MenuBarLabelView.cpp" line="+18"/>
        <source>Brightwave Record, recording, %1</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::OnboardingView</name>
    <message>
        <location filename="../interface/OnboardingView.cpp" line="+270"/>
        <source>Record any audio on your computer</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Capture everything you hear, a single app, or a microphone — mixed into one file.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+11"/>
        <source>How it works</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Tick what you want to record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Choose System Audio or one or more apps, then add any microphones you want mixed in.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Press Record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>One button starts and stops. While recording, a timer in the system tray lets you stop from anywhere.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Watch your levels</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>The meter shows what&apos;s being captured. Your file is saved automatically when you stop.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+15"/>
        <source>Allow audio recording</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Allow Access</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+9"/>
        <source>Waiting for permission</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Open Sound Settings</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+15"/>
        <source>You&apos;re ready to record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Start Using Brightwave Record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+13"/>
        <location line="+18"/>
        <source>Back</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="-6"/>
        <location line="+6"/>
        <location line="+59"/>
        <source>Continue</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="-59"/>
        <location line="+59"/>
        <source>Skip</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Step %1 of %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+13"/>
        <source>Brightwave Record records through your desktop’s audio service. Let it check that it may — nothing is recorded until you press Record.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>If your desktop asks for permission, click Allow.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>You&apos;re all set. Brightwave Record can record system audio.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>No problem — Brightwave Record couldn’t reach the audio service. Check that PipeWire is running (in a sandbox, that the app may use audio). This screen will update by itself.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+9"/>
        <source>Tick a source, press Record, and Brightwave Record takes care of the rest.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Tick a source and press Record. If your desktop still needs permission, it will ask then.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::RecordButton</name>
    <message>
        <location filename="../interface/RecordButton.cpp" line="+109"/>
        <location line="+57"/>
        <source>Record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="-57"/>
        <location line="+57"/>
        <source>Stop</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="-3"/>
        <source>Stop recording</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+0"/>
        <source>Start recording</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::RecordingMenuBarView</name>
    <message>
        <location filename="../shell/RecordingMenuBarView.cpp" line="+53"/>
        <source>Open Brightwave Record</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Stop</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+14"/>
        <source>Recording</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::SegmentedMeter</name>
    <message>
        <location filename="../interface/SegmentedMeter.cpp" line="+26"/>
        <source>Recording level</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>%1 percent</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>, clipping</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::SettingsView</name>
    <message>
        <location filename="../interface/SettingsView.cpp" line="+25"/>
        <source>General</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>About</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::SourceRowView</name>
    <message>
        <location filename="../interface/SourceRowView.cpp" line="+119"/>
        <location line="+1"/>
        <source>Playing audio</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+18"/>
        <source>Volume of this source in the recording</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+147"/>
        <source>Record %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>%1 volume</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::TimecodeLCDView</name>
    <message>
        <location filename="../interface/TimecodeLCDView.cpp" line="+30"/>
        <source>Elapsed time</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::UpdateDialog</name>
    <message>
        <location filename="../interface/UpdateDialog.cpp" line="+18"/>
        <source>Software Update</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+11"/>
        <source>You&apos;re up to date!</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>A new version of Brightwave Record is available!</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>The update check didn&apos;t succeed.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+36"/>
        <source>Later</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+0"/>
        <source>OK</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Visit Download Page</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>bw::UpdaterService</name>
    <message>
        <location filename="../app/UpdaterService.cpp" line="+50"/>
        <source>This build has no address for update checks.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>An update check is already running.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+16"/>
        <source>The update check failed.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Brightwave Record %1 is available; you have %2.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Brightwave Record %1 is the newest version.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
</TS>
