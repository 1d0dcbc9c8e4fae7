"""The host TV page in headless chromium, driven as an engineer would.

`lumora-tv web --run --scenario demo` serves the page and runs the service; the
demo (played at half speed for room on a busy machine) shows a new-device
pop-up, a device pop-up, another device pop-up, then switches the TV off. The
page must show each pop-up with its buttons, press "Go to Lumora" through the
service, switch the language so that the next pop-up speaks Korean, and show
a device name holding markup as text, and a device name with a bidirectional
control and a long body as the TV's drawing cuts them. A ninth page, over the
server's cap, says why and goes live when a place frees; at 800 px wide the
engineer's panel fits (a second screenshot, SCREENSHOT with -800 before .png).

usage: browser_test.py LUMORA_TV SCREENSHOT CHROMEDRIVER
"""
import os
import re
import signal
import socket
import subprocess
import sys
import time

from selenium import webdriver
from selenium.common.exceptions import NoSuchElementException, StaleElementReferenceException, TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select, WebDriverWait

LUMORA_TV, SCREENSHOT, CHROMEDRIVER = sys.argv[1:4]
# lumora-tv is started the way the host kit starts its programs: through
# LUMORA_EXEC_WRAPPER when it is set (an emulator for another CPU's build).
START = [os.environ["LUMORA_EXEC_WRAPPER"]] if os.environ.get("LUMORA_EXEC_WRAPPER") else []
WAIT = 60  # seconds: generous, the machine is shared
HOSTILE_NAME = "<img src=x onerror=window.__pwned=1>"
HOSTILE_EVENT = (
    '<DeviceNotification id="n-x" type="Alarm">'
    '<Device id="ac-x" type="Air Conditioner">&lt;img src=x onerror=window.__pwned=1&gt;</Device>'
    "<Notification>&lt;b&gt;not bold&lt;/b&gt;</Notification>"
    '<Action type="Widget">Open</Action><DisplayOption flag="On" condition="Always"/>'
    "</DeviceNotification>"
)
LONG_EVENT = (
    '<DeviceNotification id="n-y" type="Alarm">'
    '<Device id="ac-y" type="Air Conditioner">\u202eeliveD</Device>'
    "<Notification>" + "word " * 50000 + "</Notification>"
    '<Action type="Widget">Open</Action><DisplayOption flag="On" condition="Always"/>'
    "</DeviceNotification>"
)


def open_stream(port):
    """An event stream on a plain socket: the socket, or None when refused."""
    s = socket.create_connection(("127.0.0.1", port), timeout=WAIT)
    s.sendall(f"GET /api/events HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n\r\n".encode())
    if s.recv(12).endswith(b" 200"):
        return s
    s.close()
    return None


def lumora_tv(*args):
    return subprocess.run([*START, LUMORA_TV, *args], capture_output=True, text=True, timeout=60)


def popups(driver):
    """What the page's TV screen shows: title and button labels of each pop-up."""
    return driver.execute_script(
        """return [...document.querySelectorAll('#popups .popup')].map(p => ({
             title: p.querySelector('.title').textContent,
             body: p.querySelector('.body').textContent,
             buttons: [...p.querySelectorAll('button.press')].map(b => b.textContent)}));"""
    )


def wait_for(driver, what, condition):
    try:
        # The page redraws the screen when it changes: an element may go stale.
        return WebDriverWait(driver, WAIT, poll_frequency=0.2,
                             ignored_exceptions=(NoSuchElementException, StaleElementReferenceException)
                             ).until(lambda d: condition(d))
    except TimeoutException:
        raise AssertionError(f"not seen within {WAIT} s: {what}; on screen: {popups(driver)}")


def wait_for_popup(driver, title):
    return wait_for(driver, f"a pop-up titled {title!r}",
                    lambda d: next((p for p in popups(d) if p["title"] == title), None))


def press(driver, title, label):
    xpath = f"//*[@id='popups']//div[@class='popup'][div[@class='title']='{title}']//button[@class='press'][.='{label}']"
    wait_for(driver, f"a button {label!r} on a pop-up {title!r}",
             lambda d: d.find_element(By.XPATH, xpath).click() or True)


def text_of(driver, element_id):
    return driver.find_element(By.ID, element_id).text


def main():
    assert lumora_tv("reset").returncode == 0, "a service runs on this host TV"
    log_path = os.path.join(os.path.dirname(SCREENSHOT), "web-browser-test.log")
    env = dict(os.environ, QORV_SIM_SPEED="0.5", TVHOST_DRAW="0")
    with open(log_path, "w") as log:
        web = subprocess.Popen([*START, LUMORA_TV, "web", "--run", "--scenario", "demo", "--listen", "127.0.0.1:0"],
                               stdout=log, stderr=subprocess.STDOUT, env=env)
    options = webdriver.ChromeOptions()
    for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--window-size=1400,1250"):
        options.add_argument(arg)
    driver = None
    try:
        driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
        deadline = time.time() + WAIT
        while not (url := re.search(r"open (http://127\.0\.0\.1:\d+/)", open(log_path).read())):
            assert web.poll() is None and time.time() < deadline, open(log_path).read()
            time.sleep(0.2)
        driver.get(url.group(1))
        wait_for(driver, "the engine started", lambda d: text_of(d, "engine") == "started")

        # A device name with markup, through the page's event form: shown as text, run never.
        Select(driver.find_element(By.ID, "event-source")).select_by_value("text")
        driver.execute_script("document.getElementById('event-number').value = '5';"
                              "document.getElementById('event-text').value = arguments[0];", HOSTILE_EVENT)
        driver.find_element(By.ID, "event-send").click()
        hostile = wait_for_popup(driver, HOSTILE_NAME)
        driver.execute_script("document.getElementById('event-text').value = arguments[0];", LONG_EVENT)
        driver.find_element(By.ID, "event-send").click()
        long = wait_for_popup(driver, "eliveD")
        body_lines = long["body"].split("\n")
        assert len(body_lines) == 16 and body_lines[-1].endswith("\u2026"), long["body"][:200]
        assert max(len(line) for line in body_lines) <= 64, body_lines
        assert hostile["body"] == "<b>not bold</b>", hostile
        assert driver.execute_script("return window.__pwned") is None, "the device name ran as markup"
        assert not driver.execute_script(
            "return document.querySelector('#popups img:not([src^=\"/api/icon\"]), #popups b')"), \
            "the device's texts became elements"

        new_devices = wait_for_popup(driver, "New home appliance detected")
        assert new_devices["buttons"] == ["Yes", "No"], new_devices

        living = wait_for_popup(driver, "Living room")
        assert living["buttons"] == ["Close", "Go to Lumora"], living
        press(driver, "Living room", "Go to Lumora")
        wait_for(driver, "the widget launched for ac-living",
                 lambda d: "launched PzKmRvTqXa.Lumora with deviceID=ac-living" in text_of(d, "activity"))
        widget = lumora_tv("widget")
        assert "running" in widget.stdout and "not running" not in widget.stdout, widget.stdout
        wait_for(driver, "the panel shows the widget running", lambda d: "running" in text_of(d, "widget"))

        Select(driver.find_element(By.ID, "language-choice")).select_by_value("ko_KR.UTF-8")
        wait_for(driver, "the language switched", lambda d: text_of(d, "language") == "ko_KR.UTF-8")
        laundry = wait_for_popup(driver, "Laundry")
        assert laundry["buttons"] == ["확인"], laundry
        assert driver.execute_script("return window.__pwned") is None
        driver.save_screenshot(SCREENSHOT)

        wait_for(driver, "the TV switched off by the engine", lambda d: text_of(d, "power").startswith("switched off"))

        # This page and seven more open: a ninth says why it waits, and goes live when one closes.
        port = int(url.group(1).rsplit(":", 1)[1].strip("/"))
        streams = [open_stream(port) for _ in range(7)]
        assert all(streams), "the server refused a page below its cap"
        driver.switch_to.new_window("tab")
        driver.get(url.group(1))
        wait_for(driver, "the refused page says why", lambda d: "at most 8 pages" in text_of(d, "message"))
        streams.pop().close()
        wait_for(driver, "the page live once a place freed", lambda d: text_of(d, "link") == "live")
        for stream in streams:
            stream.close()

        # 800 px wide: nothing of the panel is cut off.
        driver.set_window_size(800, 1250)
        width = driver.execute_script("return [document.documentElement.scrollWidth, window.innerWidth,"
                                      " document.getElementById('panel').getBoundingClientRect().right]")
        driver.save_screenshot(SCREENSHOT.replace(".png", "-800.png"))
        assert width[0] <= width[1] and width[2] <= width[1], f"at 800 px the page is {width}"
        web.send_signal(signal.SIGINT)
        assert web.wait(timeout=WAIT) == 130, open(log_path).read()
        print(f"ok: screenshot in {SCREENSHOT}")
    finally:
        if driver:
            driver.quit()
        if web.poll() is None:
            web.send_signal(signal.SIGINT)
            try:
                web.wait(timeout=30)
            except subprocess.TimeoutExpired:
                web.kill()
        lumora_tv("reset")


if __name__ == "__main__":
    main()
